// What the core tests share: users, store callbacks, notifications, and looking at what was freed.
#include "core_fixture.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace core_test
{

std::string format(const char *text, ...)
{
    char out[4096];
    va_list args;
    va_start(args, text);
    vsnprintf(out, sizeof out, text, args);
    va_end(args);
    return out;
}

// ---- users

ebridge_args args_of(const char *name)
{
    ebridge_args args{};
    args.user_name = name;
    args.handle = recording::handle();
    return args;
}

sw_ebridge_list_item record_of(const char *name, uint32_t mod_db)
{
    sw_ebridge_list_item record{};
    std::snprintf(record.user_name, sizeof record.user_name, "%s", name);
    record.mod_db = mod_db;
    return record;
}

int32_t no_vlan_reply(UBridge__VlanAppIndex *, int32_t) { return 0; }

int32_t no_evlan_reply(UBridge__EvlanAppIndex *, UBridge__EvlanIndex *) { return 0; }

int32_t no_eport_reply(UBridge__EportAppIndex *, UBridge__EportIndex *) { return 0; }

int32_t no_eport_release_reply(UBridge__EportAppIndex *, UBridge__EportIndex *, int32_t) { return 0; }

int32_t no_pvid_change(uint32_t, uint16_t, uint16_t, sw_vlan_pvid_entry *) { return 0; }

bool linked_to_itself(const sw_list_head &link) { return link.next == &link && link.prev == &link; }

// ---- what was logged

recording::log_line only_line(const std::string &text)
{
    std::vector<recording::log_line> found;
    for (const auto &line : recording::log())
        if (line.category == "sw_vlan_file" && line.text == text)
            found.push_back(line);
    EXPECT_EQ(1u, found.size()) << "lines of the text: " << text
                                << "\nof all: " << testing::PrintToString(recording::logged());
    return found.empty() ? recording::log_line{} : found.front();
}

void expect_line(const std::string &text, int32_t level, const std::string &file, const std::string &function)
{
    const auto line = only_line(text);
    EXPECT_EQ(level, line.level) << text;
    EXPECT_EQ(file, line.file) << text;
    EXPECT_EQ(function, line.function) << text;
    EXPECT_GT(line.line, 0) << text;
    EXPECT_EQ("%s", line.format) << text;
}

strings errors() { return recording::logged(kError); }

// ---- memory

namespace
{

std::vector<const void *> freed;

void note_freed(void *block) { freed.push_back(block); }

constexpr int kLast = 0, kMore = 3;

// In the child: the run with the nth allocation failing. Its error lines go to the parent through the pipe.
[[noreturn]] void run_failing(const std::function<bool(uint64_t)> &body, uint64_t nth, int pipe_end)
{
    const bool last = body(nth);
    recording::fail_allocation(0);
    for (const auto &line : errors()) {
        const std::string record = line + '\0';
        if (write(pipe_end, record.data(), record.size()) < 0)
            std::exit(1);
    }
    close(pipe_end);
    std::exit(testing::Test::HasFailure() ? 1 : last ? kLast : kMore);
}

strings read_records(int pipe_end)
{
    std::string all;
    char part[4096];
    for (ssize_t size; (size = read(pipe_end, part, sizeof part)) > 0;)
        all.append(part, static_cast<size_t>(size));
    strings records;
    std::istringstream stream(all);
    for (std::string record; std::getline(stream, record, '\0');)
        records.push_back(record);
    return records;
}

}  // namespace

std::vector<const void *> freed_by(const std::function<void()> &work)
{
    freed.clear();
    recording::on_free(note_freed);
    work();
    recording::on_free(nullptr);
    return freed;
}

std::vector<strings> fail_each_allocation(const std::function<bool(uint64_t)> &body)
{
    std::vector<strings> runs;
    for (uint64_t nth = 1; nth < 200; ++nth) {
        int ends[2];
        if (pipe(ends) != 0)
            break;
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            run_failing(body, nth, ends[1]);
        }
        close(ends[1]);
        runs.push_back(read_records(ends[0]));
        close(ends[0]);
        int status = 0;
        waitpid(child, &status, 0);
        const int result = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
        if (result == kLast)
            return runs;
        if (result != kMore) {
            ADD_FAILURE() << "with allocation " << nth << " failing: status " << status;
            return runs;
        }
    }
    ADD_FAILURE() << "never went through";
    return runs;
}

// ---- files

temporary_folder::temporary_folder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "unit_core_XXXXXX").string();
    path_ = mkdtemp(pattern.data());
}

temporary_folder::~temporary_folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string temporary_folder::write(const std::string &name, const std::string &text) const
{
    const std::string path = path_ + "/" + name;
    std::ofstream(path) << text;
    return path;
}

own_root::own_root()
{
    for (const char *sub : {"/etc", "/data", "/tmp"})
        std::filesystem::create_directory(folder_.path() + sub);
    outside_ = open("/", O_DIRECTORY | O_CLOEXEC);
    working_folder_ = open(".", O_DIRECTORY | O_CLOEXEC);
    if (geteuid() != 0 && unshare(CLONE_NEWUSER) != 0) {
        reason_ = std::string("a root folder of the test's own needs a user namespace: ") + std::strerror(errno);
        return;
    }
    entered_ = chroot(folder_.path().c_str()) == 0 && chdir("/") == 0;
    if (!entered_)
        reason_ = std::string("chroot: ") + std::strerror(errno);
}

own_root::~own_root()
{
    if (entered_ && (fchdir(outside_) != 0 || chroot(".") != 0 || fchdir(working_folder_) != 0))
        ADD_FAILURE() << "cannot return from the test's own root folder";
    close(outside_);
    close(working_folder_);
}

std::string output_of(const std::function<void()> &work)
{
    const size_t printed_before = recording::printed().size();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    work();
    std::fflush(nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    return out + testing::internal::GetCapturedStderr() + recording::printed().substr(printed_before);
}

std::string read_file(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void CoreTest::SetUp()
{
    const temporary_folder folder;
    sw_vlan_debug_init("fixture", folder.write("levels", "0x77").c_str());
    recording::reset();
}

void CoreTest::TearDown()
{
    recording::fail_allocation(0);
    recording::on_free(nullptr);
}

}  // namespace core_test
