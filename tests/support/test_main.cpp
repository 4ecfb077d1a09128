// Runs each test in a process of its own: the library's tables live as long as the process, so a test that starts from
// nothing needs a new one. With one test selected (as ctest does) it runs right here.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace
{

enum outcome { PASSED, FAILED, SKIPPED };

// Of a child; no tool around it ends with that.
constexpr int SKIPPED_STATUS = 77;

// One that died has failed.
outcome run_in_child(const std::string &name)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        return FAILED;
    if (child == 0) {
        testing::GTEST_FLAG(filter) = name;
        if (RUN_ALL_TESTS() != 0)
            std::exit(1);
        std::exit(testing::UnitTest::GetInstance()->skipped_test_count() != 0 ? SKIPPED_STATUS : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status))
        return FAILED;
    return WEXITSTATUS(status) == 0 ? PASSED : WEXITSTATUS(status) == SKIPPED_STATUS ? SKIPPED : FAILED;
}

// gtest decides what its filter selects only inside RUN_ALL_TESTS(), so the parent does it again here.
bool one_name(const std::string &filter) { return filter.find_first_of("*?:-") == std::string::npos; }

bool matches(const std::string &pattern, const std::string &name)
{
    size_t p = 0, n = 0, star = std::string::npos, mark = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++p, ++n;
        } else if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = n;
        } else if (star != std::string::npos) {
            p = star + 1;
            n = ++mark;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

bool any_matches(const std::string &patterns, const std::string &name)
{
    for (size_t begin = 0; begin <= patterns.size();) {
        const size_t end = std::min(patterns.find(':', begin), patterns.size());
        if (matches(patterns.substr(begin, end - begin), name))
            return true;
        begin = end + 1;
    }
    return false;
}

bool filter_selects(const std::string &filter, const std::string &name)
{
    const size_t minus = filter.find('-');
    const std::string wanted = filter.substr(0, minus);
    if (!any_matches(wanted.empty() ? "*" : wanted, name))
        return false;
    return minus == std::string::npos || !any_matches(filter.substr(minus + 1), name);
}

// Programs that tests start serve their debug shells here and nowhere else.
class shell_folder
{
  public:
    shell_folder()
    {
        if (mkdtemp(path_) != nullptr)
            setenv("EBRIDGE_SHELL_DIR", path_, 1);
    }
    ~shell_folder() { std::filesystem::remove_all(path_, ignored_); }
    shell_folder(const shell_folder &) = delete;
    shell_folder &operator=(const shell_folder &) = delete;

  private:
    char path_[32] = "/tmp/ebridge-shells-XXXXXX";
    std::error_code ignored_{};
};

}  // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const shell_folder private_to_this_run;
    const std::string filter = testing::GTEST_FLAG(filter);
    if (testing::GTEST_FLAG(list_tests) || one_name(filter))
        return RUN_ALL_TESTS();

    std::array<std::vector<std::string>, SKIPPED + 1> names;
    auto *unit = testing::UnitTest::GetInstance();
    for (int s = 0; s < unit->total_test_suite_count(); ++s) {
        auto *suite = unit->GetTestSuite(s);
        for (int t = 0; t < suite->total_test_count(); ++t) {
            const std::string name = std::string(suite->name()) + "." + suite->GetTestInfo(t)->name();
            if (!filter_selects(filter, name))
                continue;
            names[run_in_child(name)].push_back(name);
        }
    }
    std::printf("%zu passed, %zu skipped, %zu failed\n", names[PASSED].size(), names[SKIPPED].size(),
                names[FAILED].size());
    for (const auto &name : names[SKIPPED])
        std::printf("SKIPPED %s\n", name.c_str());
    for (const auto &name : names[FAILED])
        std::printf("FAILED %s\n", name.c_str());
    return names[FAILED].empty() ? 0 : 1;
}
