// The keyed cache against absl::flat_hash_set and std::unordered_set: sets of the same record pointers, with the same
// hash and the same comparison of keys, in one run.
//
// Each repetition makes about a million operations. Records are inserted in an order that has nothing to do with where
// they are in memory, and looked up and erased in another one, by keys of their own. Time is processor time, that of the
// operations alone; the medians of all repetitions are shown. Bytes are what the allocator has handed out for a filled set.
#include <absl/container/flat_hash_set.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "keyed_cache.hpp"

namespace
{

constexpr uint32_t OPERATIONS = 1000000;  // per repetition
constexpr int REPETITIONS = 5;

template <size_t Length>
struct record {
    uint8_t key[Length];
    uint32_t data;
};

// ---- the three sets -------------------------------------------------------------------------------------------------

int32_t add_data(const uint32_t *data, uint64_t *sum)
{
    *sum += *data;
    return 0;
}

// What a walk calls for each record, through a pointer that the compiler does not see through.
template <size_t Length>
int32_t visit(record<Length> *r, void *sum, int32_t)
{
    return add_data(&r->data, static_cast<uint64_t *>(sum));
}

template <size_t Length>
class ours
{
  public:
    static constexpr const char *NAME = "ours";
    using table = sw::keyed_table<Length>;

    ours() = default;
    ours(const ours &) = delete;
    ours &operator=(const ours &) = delete;
    ~ours() { sw::keyed_cache_clear(cache_); }

    void insert(record<Length> *r) { table::insert(cache_, r); }
    const void *find(record<Length> *key) const { return table::find(cache_, key); }
    void erase(record<Length> *key) { table::remove(cache_, key); }
    void walk(int32_t (*visitor)(record<Length> *, void *, int32_t), void *arg) const
    {
        sw::keyed_cache_walk(cache_, 0, UINT32_MAX, visitor, arg);
    }
    size_t size() const { return cache_.size; }

  private:
    sw::keyed_cache cache_{};
};

template <size_t Length>
struct hash_record {
    size_t operator()(const record<Length> *r) const { return sw::lookup2_of<Length>(r); }
};
template <size_t Length>
struct same_key {
    bool operator()(const record<Length> *a, const record<Length> *b) const
    {
        return std::memcmp(a->key, b->key, Length) == 0;
    }
};

template <size_t Length, class Set>
class library_set
{
  public:
    void insert(record<Length> *r) { set_.insert(r); }
    const void *find(record<Length> *key) const
    {
        const auto found = set_.find(key);
        return found == set_.end() ? nullptr : *found;
    }
    void erase(record<Length> *key) { set_.erase(key); }
    void walk(int32_t (*visitor)(record<Length> *, void *, int32_t), void *arg) const
    {
        for (record<Length> *r : set_)
            if (visitor(r, arg, 0) != 0)
                return;
    }
    size_t size() const { return set_.size(); }

  private:
    Set set_;
};

template <size_t Length>
struct abseil : library_set<Length, absl::flat_hash_set<record<Length> *, hash_record<Length>, same_key<Length>>> {
    static constexpr const char *NAME = "absl";
};
template <size_t Length>
struct standard : library_set<Length, std::unordered_set<record<Length> *, hash_record<Length>, same_key<Length>>> {
    static constexpr const char *NAME = "std";
};

// ---- records and probes ---------------------------------------------------------------------------------------------

// Orders of the records, one after the other: small tables have many, each pass takes the next, so that the processor
// cannot learn the way through the table by heart.
template <size_t Length>
struct workload {
    std::vector<record<Length>> records;
    std::vector<record<Length> *> insertions;
    std::vector<record<Length>> hits;    // keys of the records
    std::vector<record<Length>> misses;  // keys of no record
    size_t orders;

    template <class Element>
    std::span<Element> pass(std::vector<Element> &all, size_t number)
    {
        return std::span(all).subspan(number % orders * records.size(), records.size());
    }
};

constexpr uint32_t OPERATIONS_TO_FORGET = 100000;

// Keys that differ in their last word only, as those of one user's records do.
template <size_t Length>
record<Length> make_record(uint32_t number)
{
    record<Length> r;
    std::memset(r.key, 'u', Length);
    std::memcpy(r.key + Length - sizeof number, &number, sizeof number);
    r.data = number;
    return r;
}

template <size_t Length>
workload<Length> make_workload(uint32_t count)
{
    workload<Length> w;
    std::vector<uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0);
    for (uint32_t number : order)
        w.records.push_back(make_record<Length>(number));
    w.orders = std::max(1u, OPERATIONS_TO_FORGET / count);
    std::mt19937 random(count);
    for (size_t i = 0; i < w.orders; ++i) {
        std::shuffle(order.begin(), order.end(), random);
        for (uint32_t number : order)
            w.insertions.push_back(&w.records[number]);
        std::shuffle(order.begin(), order.end(), random);
        for (uint32_t number : order) {
            w.hits.push_back(w.records[number]);
            w.misses.push_back(make_record<Length>(count + number));
        }
    }
    return w;
}

template <size_t Length>
workload<Length> &workload_of(uint32_t count)
{
    static std::map<uint32_t, workload<Length>> made;
    const auto at = made.find(count);
    return at != made.end() ? at->second : made.emplace(count, make_workload<Length>(count)).first->second;
}

// ---- operations -----------------------------------------------------------------------------------------------------

template <class Set, size_t Length>
void fill(Set &set, workload<Length> &w, size_t pass = 0)
{
    for (record<Length> *r : w.pass(w.insertions, pass))
        set.insert(r);
}

// Of this thread, so that other programs on the machine count as little as can be.
double processor_seconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <class Body>
double seconds_of(const Body &body)
{
    const double start = processor_seconds();
    body();
    return processor_seconds() - start;
}

// Runs `pass`, which is given its number and gives the seconds of one operation on each record, until the state has enough.
template <class Pass>
void measure(benchmark::State &state, uint32_t count, const Pass &pass)
{
    double total = 0;
    size_t number = 0;
    for (auto _ : state) {
        const double seconds = pass(number++);
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["ns_per_op"] = total * 1e9 / (static_cast<double>(state.iterations()) * count);
}

template <template <size_t> class Set, size_t Length>
void insert(benchmark::State &state, uint32_t count)
{
    workload<Length> &w = workload_of<Length>(count);
    measure(state, count, [&](size_t pass) {
        Set<Length> set;
        return seconds_of([&] { fill(set, w, pass); });
    });
}

template <template <size_t> class Set, size_t Length>
void look_up(benchmark::State &state, uint32_t count, bool present)
{
    workload<Length> &w = workload_of<Length>(count);
    Set<Length> set;
    fill(set, w);
    std::vector<record<Length>> &probes = present ? w.hits : w.misses;
    size_t found = 0;
    measure(state, count, [&](size_t pass) {
        return seconds_of([&] {
            for (record<Length> &key : w.pass(probes, pass))
                found += set.find(&key) != nullptr;
        });
    });
    if (found != (present ? size_t{count} * state.iterations() : 0))
        state.SkipWithError("wrong answers");
}

template <template <size_t> class Set, size_t Length>
void hit(benchmark::State &state, uint32_t count)
{
    look_up<Set, Length>(state, count, true);
}

template <template <size_t> class Set, size_t Length>
void miss(benchmark::State &state, uint32_t count)
{
    look_up<Set, Length>(state, count, false);
}

template <template <size_t> class Set, size_t Length>
void erase(benchmark::State &state, uint32_t count)
{
    workload<Length> &w = workload_of<Length>(count);
    measure(state, count, [&](size_t pass) {
        Set<Length> set;
        fill(set, w, pass);
        const double seconds = seconds_of([&] {
            for (record<Length> &key : w.pass(w.hits, pass))
                set.erase(&key);
        });
        if (set.size() != 0)
            state.SkipWithError("records left");
        return seconds;
    });
}

template <template <size_t> class Set, size_t Length>
void walk(benchmark::State &state, uint32_t count)
{
    workload<Length> &w = workload_of<Length>(count);
    Set<Length> set;
    fill(set, w);
    int32_t (*visitor)(record<Length> *, void *, int32_t) = visit<Length>;
    benchmark::DoNotOptimize(visitor);
    uint64_t sum = 0;
    measure(state, count, [&](size_t) { return seconds_of([&] { set.walk(visitor, &sum); }); });
    if (sum != uint64_t{count} * (count - 1) / 2 * state.iterations())
        state.SkipWithError("wrong sum");
}

size_t allocated_bytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

template <template <size_t> class Set, size_t Length>
double bytes_per_entry(uint32_t count)
{
    workload<Length> &w = workload_of<Length>(count);
    const size_t before = allocated_bytes();
    Set<Length> set;
    fill(set, w);
    return static_cast<double>(allocated_bytes() - before) / count;
}

// ---- report ---------------------------------------------------------------------------------------------------------

constexpr const char *OPERATION_NAMES[] = {"insert", "hit", "miss", "erase", "walk"};
constexpr uint32_t COUNTS[] = {1000, 10000, 100000, 1000000};

std::string benchmark_name(const char *operation, size_t key, uint32_t count, const char *set)
{
    return std::string(operation) + "/key:" + std::to_string(key) + "/records:" + std::to_string(count) + "/" + set;
}

// Keeps the medians and shows one line for the three sets together.
class ratio_table : public benchmark::BenchmarkReporter
{
  public:
    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred)
                std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            else if (run.aggregate_name == "median")
                medians_[run.run_name.function_name] = run.counters.at("ns_per_op");
        }
    }

    void Finalize() override
    {
        std::printf("%-7s %4s %8s | %9s %9s %9s | %9s %9s\n", "", "key", "records", "ours ns", "absl ns", "std ns",
                    "absl/ours", "std/ours");
        for (const char *operation : OPERATION_NAMES)
            for (const size_t key : {4, 16, 36, 92})
                for (const uint32_t count : COUNTS)
                    print_line(operation, key, count);
    }

  private:
    void print_line(const char *operation, size_t key, uint32_t count)
    {
        const auto ours_at = medians_.find(benchmark_name(operation, key, count, "ours"));
        const auto absl_at = medians_.find(benchmark_name(operation, key, count, "absl"));
        const auto std_at = medians_.find(benchmark_name(operation, key, count, "std"));
        if (ours_at == medians_.end() || absl_at == medians_.end() || std_at == medians_.end())
            return;
        std::printf("%-7s %4zu %8u | %9.1f %9.1f %9.1f | %9.2f %9.2f\n", operation, key, count, ours_at->second,
                    absl_at->second, std_at->second, absl_at->second / ours_at->second,
                    std_at->second / ours_at->second);
    }

    std::map<std::string, double> medians_;
};

void print_bytes()
{
    std::printf("bytes per entry, records not counted\n%8s | %9s %9s %9s\n", "records", "ours", "absl", "std");
    for (const uint32_t count : COUNTS)
        std::printf("%8u | %9.1f %9.1f %9.1f\n", count, bytes_per_entry<ours, 16>(count),
                    bytes_per_entry<abseil, 16>(count), bytes_per_entry<standard, 16>(count));
}

// ---- registration ---------------------------------------------------------------------------------------------------

template <template <size_t> class Set, size_t Length>
void register_set(uint32_t count)
{
    using operation = void (*)(benchmark::State &, uint32_t);
    constexpr operation OPERATIONS_OF_SET[] = {insert<Set, Length>, hit<Set, Length>, miss<Set, Length>,
                                               erase<Set, Length>, walk<Set, Length>};
    for (size_t i = 0; i < std::size(OPERATION_NAMES); ++i)
        benchmark::RegisterBenchmark(
            benchmark_name(OPERATION_NAMES[i], Length, count, Set<Length>::NAME).c_str(),
            [run = OPERATIONS_OF_SET[i], count](benchmark::State &state) { run(state, count); })
            ->Iterations(OPERATIONS / count)
            ->Repetitions(REPETITIONS)
            ->ReportAggregatesOnly()
            ->UseManualTime();
}

template <size_t Length>
void register_key()
{
    for (const uint32_t count : COUNTS) {
        register_set<ours, Length>(count);
        register_set<abseil, Length>(count);
        register_set<standard, Length>(count);
    }
}

// containers.json beside the program.
std::string default_output()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string program(path, length < 0 ? 0 : static_cast<size_t>(length));
    return program.substr(0, program.rfind('/') + 1) + "containers.json";
}

}  // namespace

int main(int argc, char **argv)
{
    // Interleaved repetitions, so that a busy moment of the machine falls on all three sets. Later flags win.
    std::string out = "--benchmark_out=" + default_output();
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> args{argv[0], out.data(), interleaving.data()};
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data()))
        return 2;

    register_key<4>();
    register_key<16>();
    register_key<36>();
    register_key<92>();
    print_bytes();
    std::fflush(stdout);
    ratio_table table;
    benchmark::RunSpecifiedBenchmarks(&table);
    benchmark::Shutdown();
    return 0;
}
