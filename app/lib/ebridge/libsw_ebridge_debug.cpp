// Logging set-up, the collect file, the commands that each process offers to the debug shell, and those of their handlers
// that no area of the library has for itself.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <utility>

#include "export.hpp"
#include "libsw_ebridge_ds.hpp"
#include "logging.hpp"
#include "print.hpp"

SW_EXPORT uint32_t g_sw_vlan_file_zlog_level;
SW_EXPORT uint32_t g_sw_vlan_std_zlog_level;
SW_EXPORT qz_zlog_category *g_sw_vlan_file_zlog_category;
SW_EXPORT qz_zlog_category *g_sw_vlan_std_zlog_category;
uint32_t g_sw_vlan_file_zlog_level = 0;
uint32_t g_sw_vlan_std_zlog_level = 0;
qz_zlog_category *g_sw_vlan_file_zlog_category = nullptr;
qz_zlog_category *g_sw_vlan_std_zlog_category = nullptr;

namespace sw
{

// By the level from which a class is admitted.
static constexpr int32_t zlog_levels[] = {QZ_ZLOG_FATAL, QZ_ZLOG_ERROR, QZ_ZLOG_WARN, 0, QZ_ZLOG_INFO, QZ_ZLOG_DEBUG};

static void emit_to(qz_zlog_category *category, site where, log_class cls, const char *text)
{
    const char *file = kSources[where.place >> kLineBits];
    if (category != nullptr)
        qzdf_zlog(category, file, std::strlen(file), where.function, std::strlen(where.function),
                  static_cast<long>(where.place & kLineMask), zlog_levels[cls], "%s", text);
}

void emit(site where, log_class cls, const char *text)
{
    if (file_admits(cls))
        emit_to(g_sw_vlan_file_zlog_category, where, cls, text);
    if (std_admits(cls))
        emit_to(g_sw_vlan_std_zlog_category, where, cls, text);
}

}  // namespace sw

// ---- levels and categories ----------------------------------------------------------------------------------------

namespace
{

constexpr size_t kProgramNameLength = 64;

constinit char program_name[kProgramNameLength + 1] = {};

// The last part of the program's path; empty when it cannot be found out.
void find_program_name()
{
    char link[32];
    std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(getpid()));
    char path[4096];
    const ssize_t length = readlink(link, path, sizeof path - 1);
    program_name[0] = '\0';
    if (length < 0) {
        std::printf("readlink: %s\n", std::strerror(errno));
        return;
    }
    path[length] = '\0';
    const char *slash = std::strrchr(path, '/');
    std::snprintf(program_name, sizeof program_name, "%.64s", slash != nullptr ? slash + 1 : path);
}

// One number holds both levels: bits 4 to 7 the file's, bits 0 to 3 standard output's.
void read_levels(const char *path)
{
    const int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        g_sw_vlan_file_zlog_level = 1;
        g_sw_vlan_std_zlog_level = 0;
        return;
    }
    char text[20 + 1] = {};
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    if (length <= 0) {
        g_sw_vlan_file_zlog_level = 4;
        g_sw_vlan_std_zlog_level = 4;
        return;
    }
    const int base = strncasecmp(text, "0x", 2) == 0 ? 16 : 10;
    const unsigned long long levels = std::strtoull(text, nullptr, base);
    g_sw_vlan_file_zlog_level = static_cast<uint32_t>(levels >> 4 & 0xf);
    g_sw_vlan_std_zlog_level = static_cast<uint32_t>(levels & 0xf);
}

void open_categories()
{
    g_sw_vlan_file_zlog_category = qz_zlog_init("sw_vlan_file", program_name);
    if (g_sw_vlan_file_zlog_category == nullptr)
        std::printf("g_sw_vlan_file_zlog_category init failed\n");
    g_sw_vlan_std_zlog_category = qz_zlog_init("sw_vlan_std");
    if (g_sw_vlan_std_zlog_category == nullptr)
        std::printf("g_sw_vlan_std_zlog_category init failed\n");
}

// False when logging was set up before. The test mixes one category's handle with the other's level, so with the
// default levels (file 1, standard output 0) a second call reads the file and opens the categories again; kept
// deliberately.
bool set_up_logging(sw::site where, const char *user_name, const char *path)
{
    if (g_sw_vlan_file_zlog_category != nullptr && g_sw_vlan_std_zlog_level != 0)
        return false;
    find_program_name();
    read_levels(path);
    open_categories();
    SW_LOG_AT(
        where, info,
        "sw_vlan_zlog inited!!!, user: %s, app: %s, dbg_file: %s, file_level: %d, std_level: %d, g_sw_vlan_file_zlog_category: 0x%p, g_sw_vlan_std_zlog_category: 0x%p\n",
        sw::printable(user_name), program_name, sw::printable(path), g_sw_vlan_file_zlog_level,
        g_sw_vlan_std_zlog_level, static_cast<void *>(g_sw_vlan_file_zlog_category),
        static_cast<void *>(g_sw_vlan_std_zlog_category));
    return true;
}

// ---- debug-shell commands -----------------------------------------------------------------------------------------

// A shell handler that calls `Function` with as many integers as it takes; 0 stands for those left out.
template <auto Function, typename... Args>
int32_t call_with(int32_t (*)(Args...), int32_t argc, const int32_t *argv)
{
    return [&]<size_t... I>(std::index_sequence<I...>)
    {
        return Function(static_cast<Args>(static_cast<int32_t>(I) < argc ? argv[I] : 0)...);
    }
    (std::index_sequence_for<Args...>{});
}

template <auto Function>
int32_t shell_handler(int32_t argc, const int32_t *argv)
{
    return call_with<Function>(Function, argc, argv);
}

struct shell_command {
    const char *name;
    const char *help;  // each %d and %x names an argument
    ssat_handler handler;
};

int32_t reset_statistics()
{
    sw_ebridge_reset_stat();
    return 0;
}

constexpr shell_command shell_commands[] = {
    {"dump_list", "dump ebridge list info", shell_handler<sw_ebridge_list_item_ut_dump>},
    {"dump_type", "dump ebridge list info", shell_handler<sw_ebridge_dump_type>},  // text of dump_list, kept so
    {"dump_evlan", "dump evlan info(0 dump all), db_type=%d, evlan_type=0x%x, evlan_id=0x%x",
     shell_handler<sw_evlan_db_ut_dump>},
    {"dump_eport", "dump eport info(0 dump all), db_type=%d, eport_type=0x%x, eport_id=0x%x",
     shell_handler<sw_eport_db_ut_dump>},
    {"dump_ematch", "dump ematch info(0 dump all), ematch_type=0x%x", shell_handler<sw_ematch_db_ut_dump>},
    {"evlan_app2udp", "evlan_app2udp, type=0x%x, keyid=%d", shell_handler<sw_evlan_app2udp_test>},
    {"evlan_udp2app", "evlan_udp2app, evlan_id=0x%x", shell_handler<sw_evlan_udp2app_test>},
    {"eport_app2udp", "eport_app2udp, type=0x%x, keyid1=%d, keyid2=%d", shell_handler<sw_eport_app2udp_test>},
    {"eport_udp2app", "eport_udp2app, eport_id=0x%x", shell_handler<sw_eport_udp2app_test>},
    {"dump_vlan", "dump vlan info(0 dump all), db_type=%d, vlan_id=%d", shell_handler<sw_vlan_db_ut_dump>},
    {"dump_port", "dump port(ap) info(0 dump all), db_type=%d, eport_id=0x%x", shell_handler<sw_port_db_ut_dump>},
    {"dump_ap", "dump ap info(0 dump all), db_type=%d, eport_id=0x%x", shell_handler<sw_ap_db_ut_dump>},
    {"dump_pvid", "dump port_vid info(0 dump all), ifx=%d", shell_handler<sw_vlan_pvid_ut_dump>},
    {"dump_pvid_stats", "pvid_stats", shell_handler<sw_vlan_pvid_stats_print>},
    {"clear_stat", "clear the diagnosis statistics", shell_handler<reset_statistics>},
    {"dump_stat", "get the diagnosis statistics", shell_handler<sw::dump_statistics>},
    {"dump_eport_err_msg", "print the last five eport_error_msg", shell_handler<sw::dump_eport_errors>},
    {"dump_evlan_err_msg", "print the last five evlan_error_msg", shell_handler<sw::dump_evlan_errors>},
    {"delay", "set evlan/eport delay time, evlan_second=%d, eport_second=%d", shell_handler<sw_ebridge_delay_time_set>},
    {"debug", "set vlan debug level(1:err,2:warn,4:info,7:all), file_level=%d, std_level=%d",
     shell_handler<sw_switch_vlan_logging_set>},
};

// The shell is an aid: without it the library works on.
void register_shell_commands()
{
    char name[sizeof "libvlan_" + kProgramNameLength];
    std::snprintf(name, sizeof name, "libvlan_%s", program_name);
    ssat_module *module = nullptr;
    ssat_lib_init(name, &module);
    for (const shell_command &command : shell_commands)
        ssat_reg_mod_cmd(module, command.name, 0, command.help, command.handler);
}

}  // namespace

SW_EXPORT int32_t sw_vlan_debug_init(const char *user_name, const char *path)
{
    set_up_logging(SW_HERE, user_name, path);
    return 0;
}

SW_EXPORT int32_t lib_vlan_debug_init(const ebridge_args *args)
{
    if (args == nullptr || args->user_name == nullptr) {
        SW_LOG(error, "Assert:Bad args.");
        return -2;
    }
    char path[sizeof "/etc/libvlan__dbg" + SW_EBRIDGE_NAME_SIZE];
    std::snprintf(path, sizeof path, "/etc/libvlan_%s_dbg", args->user_name);
    if (set_up_logging(SW_HERE, args->user_name, path))
        register_shell_commands();
    return 0;
}

// ---- what only operators call -------------------------------------------------------------------------------------

// The types that came later are not listed; kept so.
SW_EXPORT int32_t sw_ebridge_dump_type(void)
{
    sw::print(
        "evlan-vlan:     0x%x\n"
        "evlan-vxlan:    0x%x\n"
        "evlan-vpls:     0x%x\n"
        "evlan-trill:    0x%x\n"
        "evlan-l2gre:    0x%x\n\n",
        U_BRIDGE__EVLAN_TYPE__VLAN, U_BRIDGE__EVLAN_TYPE__VXLAN, U_BRIDGE__EVLAN_TYPE__VPLS,
        U_BRIDGE__EVLAN_TYPE__TRILL, U_BRIDGE__EVLAN_TYPE__L2GRE);
    sw::print(
        "eport-port:     0x%x\n"
        "eport-localport:0x%x\n"
        "eport-ap:       0x%x\n"
        "eport-vxlan-ac: 0x%x\n"
        "eport-vxlan-pw: 0x%x\n"
        "eport-vpls-ac:  0x%x\n"
        "eport-vpls-pw:  0x%x\n"
        "eport-trill-ac: 0x%x\n"
        "eport-trill-pw: 0x%x\n"
        "eport-l2gre-ac: 0x%x\n"
        "eport-l2gre-pw: 0x%x\n",
        U_BRIDGE__EPORT_TYPE__PORT, U_BRIDGE__EPORT_TYPE__LOCAL_PORT, U_BRIDGE__EPORT_TYPE__AP,
        U_BRIDGE__EPORT_TYPE__VXLAN_AC, U_BRIDGE__EPORT_TYPE__VXLAN_PW, U_BRIDGE__EPORT_TYPE__VPLS_AC,
        U_BRIDGE__EPORT_TYPE__VPLS_PW, U_BRIDGE__EPORT_TYPE__TRILL_AC, U_BRIDGE__EPORT_TYPE__TRILL_PW,
        U_BRIDGE__EPORT_TYPE__L2GRE_AC, U_BRIDGE__EPORT_TYPE__L2GRE_PW);
    return 0;
}

SW_EXPORT int32_t sw_evlan_app2udp_test(int32_t type, int32_t keyid)
{
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    app.type = type;
    app.keyid = keyid;
    const int32_t rv = sw_evlan_app2udp(&app, &evlan);
    sw::print("type: 0x%x, keyid: %d => evlan_id: 0x%x, rv: %d\n", static_cast<uint32_t>(type), keyid,
              static_cast<uint32_t>(evlan.evlan_id), rv);
    return rv;
}

SW_EXPORT int32_t sw_evlan_udp2app_test(uint32_t evlan_id)
{
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    evlan.evlan_id = static_cast<int32_t>(evlan_id);
    const int32_t rv = sw_evlan_udp2app(&evlan, &app);
    sw::print("evlan_id: 0x%x => type: 0x%x, keyid: %d, rv: %d\n", evlan_id, static_cast<uint32_t>(app.type), app.keyid,
              rv);
    return rv;
}

SW_EXPORT int32_t sw_eport_app2udp_test(int32_t type, int32_t keyid1, int32_t keyid2)
{
    UBridge__EportAppIndex app = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportIndex eport = U_BRIDGE__EPORT_INDEX__INIT;
    app.type = type;
    app.keyid1 = keyid1;
    app.keyid2 = keyid2;
    const int32_t rv = sw_eport_app2udp(&app, &eport);
    sw::print("type: 0x%x, keyid1: %d, keyid2: %d => eport_id: 0x%x, rv: %d\n", static_cast<uint32_t>(type), keyid1,
              keyid2, static_cast<uint32_t>(eport.eport_id), rv);
    return rv;
}

SW_EXPORT int32_t sw_eport_udp2app_test(uint32_t eport_id)
{
    UBridge__EportAppIndex app = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportIndex eport = U_BRIDGE__EPORT_INDEX__INIT;
    eport.eport_id = static_cast<int32_t>(eport_id);
    const int32_t rv = sw_eport_udp2app(&eport, &app);
    sw::print("eport_id: 0x%x => type: 0x%x, keyid1: %d, keyid2: %d, rv: %d\n", eport_id,
              static_cast<uint32_t>(app.type), app.keyid1, app.keyid2, rv);
    return rv;
}

// The lines bear the header's name, not this file's: the levels are those of all who log through it.
SW_EXPORT int32_t sw_switch_vlan_logging_set(int32_t file_level, int32_t std_level)
{
    static constexpr sw::site header = {__func__, sw::place_of("sw_bridge/ebridge/sw_ebridge.h", 1)};
    sw::print("setting vlan file_level: %d, std_level: %d\r\n", file_level, std_level);
    g_sw_vlan_file_zlog_level = static_cast<uint32_t>(file_level);
    g_sw_vlan_std_zlog_level = static_cast<uint32_t>(std_level);
    SW_LOG_AT(header, debug, "DEBUG level is opened\r\n");
    SW_LOG_AT(header, info, "INFO level is opened\r\n");
    SW_LOG_AT(header, warning, "WARN level is opened\r\n");
    SW_LOG_AT(header, error, "ERROR level is opened\r\n");
    return 0;
}

// ---- collect file -------------------------------------------------------------------------------------------------

namespace
{

constinit int32_t collect_fd = -1;
constinit int32_t saved_stdout = -1;

void redirect_standard_streams(int fd)
{
    dup2(fd, STDIN_FILENO);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
}

}  // namespace

// Redirects only when the folder is newly made: a second process, or a second run, leaves the streams alone.
SW_EXPORT int32_t sw_bridge_logging_redirect2collectfile(const char *name)
{
    static constexpr char folder[] = "/data/collect";
    if (name == nullptr) {
        SW_LOG(error, "Assert:Bad args.");
        return -2;
    }
    char path[PATH_MAX + 1];  // one that does not fit in is too long for the system, too: it names no other file
    std::snprintf(path, sizeof path, "%s/%s.log", folder, name);
    if (const int32_t rv = mkdir(folder, 0777); rv != 0) {
        SW_LOG(info, "mkdir failed, rv: %d\n", rv);
        return rv;
    }
    if (collect_fd != -1) {
        SW_LOG(error, "Assert:Unmatch usage, fd is %d.\n", collect_fd);
        return -1;
    }
    const int fd = open(path, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        std::printf("%s open failed\n", path);
        return -1;
    }
    collect_fd = fd;
    std::fflush(stdout);
    saved_stdout = dup(STDOUT_FILENO);
    redirect_standard_streams(fd);
    return 0;
}

SW_EXPORT int32_t sw_bridge_logging_redirect2std(void)
{
    if (collect_fd != -1)
        close(collect_fd);
    collect_fd = -1;
    std::fflush(stdout);
    if (saved_stdout != -1) {
        redirect_standard_streams(saved_stdout);
        close(saved_stdout);
        saved_stdout = -1;
    }
    return 0;
}
