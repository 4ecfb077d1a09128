// See spread_store.hpp.
#include "spread_store.hpp"

#include <fstream>

namespace support
{

spread_store::spread_store()
{
    std::ofstream out(file());
    out << R"({"INSTANCES": {"redis": {"hostname": "127.0.0.1", "port": 1, "unix_socket_path": ")" << first_.socket()
        << R"(", "persistence_for_warm_boot": "yes"}, "redis1": {"unix_socket_path": ")" << second_.socket()
        << "\"}},\n \"DATABASES\": {";
    for (int database = 0; database < 16; ++database)
        out << (database == 0 ? "" : ",\n") << "\"DB" << database << "\": {\"id\": " << database
            << R"(, "separator": ":", "instance": ")" << (&server_of(database) == &first_ ? "redis" : "redis1")
            << "\"}";
    out << "},\n \"VERSION\": \"1.0\"}\n";
}

}  // namespace support
