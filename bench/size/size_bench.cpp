// What libsw_bridge costs a target in memory: text, data and bss of the library as it is loaded, and the heap that each
// family of keyed caches takes for a record. Prints tables and writes size.json beside the program.
//
//   size_bench [--limit BYTES]    status 1 when the library is larger than that
#include <elf.h>
#include <link.h>
#include <malloc.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "program.hpp"
#include "sw_ebridge.h"

namespace
{

constexpr uint32_t RECORDS = 10000;

// ---- the library ----------------------------------------------------------------------------------------------------

// As size(1) counts them, which is what is left of them when a library is stripped.
struct library_size {
    size_t text = 0;  // what is loaded and never written
    size_t data = 0;
    size_t bss = 0;
    size_t total() const { return text + data + bss; }
};

std::string path_of_library()
{
    std::string path;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *arg) {
            if (std::strstr(info->dlpi_name, "/libsw_bridge.so") != nullptr)
                *static_cast<std::string *>(arg) = info->dlpi_name;
            return 0;
        },
        &path);
    return path;
}

library_size size_of_library(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    ElfW(Ehdr) header{};
    file.read(reinterpret_cast<char *>(&header), sizeof header);
    std::vector<ElfW(Shdr)> sections(header.e_shnum);
    file.seekg(static_cast<std::streamoff>(header.e_shoff));
    file.read(reinterpret_cast<char *>(sections.data()),
              static_cast<std::streamsize>(sections.size() * sizeof(ElfW(Shdr))));
    library_size size;
    for (const auto &section : sections) {
        if (!file || (section.sh_flags & SHF_ALLOC) == 0)
            continue;
        size_t &part = (section.sh_flags & SHF_WRITE) == 0 ? size.text
                       : section.sh_type == SHT_NOBITS     ? size.bss
                                                           : size.data;
        part += section.sh_size;
    }
    return size;
}

// ---- cached records -------------------------------------------------------------------------------------------------

size_t heap_in_use()
{
    const auto now = mallinfo2();
    return now.uordblks + now.hblkhd;
}

struct family_size {
    const char *name;
    size_t record;      // bytes of the record itself
    double per_record;  // bytes of heap, with the table's share and the heap's own
};

// Fills a table of that family with records whose keys differ in the word at `id`.
template <class Record>
family_size measure(const char *name, int32_t (*init)(uint32_t), void (*create)(uint32_t, Record **, const Record *),
                    size_t id)
{
    const size_t before = heap_in_use();
    init(1);
    Record record{};
    for (uint32_t i = 1; i <= RECORDS; ++i) {
        std::memcpy(reinterpret_cast<char *>(&record) + id, &i, sizeof i);
        Record *stored = nullptr;
        create(0, &stored, &record);
        if (stored == nullptr) {
            std::fprintf(stderr, "size_bench: %s: no memory\n", name);
            std::exit(2);
        }
    }
    return {name, sizeof(Record), static_cast<double>(heap_in_use() - before) / RECORDS};
}

#define MEASURE(family, record, id) \
    measure<record>(#family, family##_hash_init, family##_cache_create, offsetof(record, id))

std::vector<family_size> measure_families()
{
    return {
        MEASURE(sw_ebridge_list_item, sw_ebridge_list_item, user_name), MEASURE(sw_evlan, sw_evlan_attr, evlan_id),
        MEASURE(sw_evlan_index_map, sw_evlan_index_map, key),           MEASURE(sw_eport, sw_eport_attr, eport_id),
        MEASURE(sw_eport_index_map, sw_eport_index_map, key),           MEASURE(sw_ematch_item, sw_ematch_item, evlan1),
        MEASURE(sw_vlan_pvid_entry, sw_vlan_pvid_entry, ifx),
    };
}

// False: the arguments make no sense.
bool read_arguments(int argc, char **argv, uint64_t &limit)
{
    if (argc == 1)
        return true;
    const std::string_view number = argc == 3 && std::strcmp(argv[1], "--limit") == 0 ? argv[2] : "";
    const auto read = std::from_chars(number.data(), number.data() + number.size(), limit);
    return !number.empty() && read.ec == std::errc() && read.ptr == number.data() + number.size();
}

}  // namespace

int main(int argc, char **argv)
{
    uint64_t limit = UINT64_MAX;
    if (!read_arguments(argc, argv, limit)) {
        std::fprintf(stderr, "usage: size_bench [--limit BYTES]\n");
        return 2;
    }
    const library_size library = size_of_library(path_of_library());
    if (library.text == 0) {
        std::fprintf(stderr, "size_bench: cannot read the library's sections\n");
        return 2;
    }
    std::printf("%-22s  %8s  %8s  %8s  %8s\n", "LIBRARY", "TEXT", "DATA", "BSS", "TOTAL");
    std::printf("%-22s  %8zu  %8zu  %8zu  %8zu\n\n", "libsw_bridge", library.text, library.data, library.bss,
                library.total());

    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    std::printf("%-22s  %8s  %15s\n", "CACHED", "RECORD", "HEAP PER RECORD");
    for (const family_size &family : measure_families()) {
        std::printf("%-22s  %8zu  %15.1f\n", family.name, family.record, family.per_record);
        rows.push_back({{"family", family.name}, {"record_bytes", family.record}, {"heap_bytes", family.per_record}});
    }

    const nlohmann::ordered_json all{
        {"pointer_bits", 8 * sizeof(void *)},
        {"library", {{"text", library.text}, {"data", library.data}, {"bss", library.bss}, {"total", library.total()}}},
        {"records", RECORDS},
        {"cached", rows}};
    try {
        bench::write_beside("size.json", all.dump(2) + '\n');
    } catch (const std::exception &error) {
        std::fprintf(stderr, "size_bench: %s\n", error.what());
        return 1;
    }
    if (library.total() > limit) {
        std::fprintf(stderr, "size_bench: the library has %zu bytes, more than %s\n", library.total(), argv[2]);
        return 1;
    }
    return 0;
}
