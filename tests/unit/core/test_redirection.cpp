// Redirection of the standard streams into the collect file and back.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "core_fixture.hpp"

namespace core_test
{
namespace
{

constexpr char kFile[] = "app/lib/ebridge/libsw_ebridge_debug.cpp";
constexpr char kRedirect[] = "sw_bridge_logging_redirect2collectfile";

// The three standard streams as they were, put back at the end of its life.
class kept_streams
{
  public:
    kept_streams()
    {
        std::fflush(nullptr);
        for (int fd = 0; fd < 3; ++fd)
            copies_[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 100);
    }
    ~kept_streams()
    {
        std::fflush(nullptr);
        for (int fd = 0; fd < 3; ++fd) {
            dup2(copies_[fd], fd);
            close(copies_[fd]);
        }
    }
    kept_streams(const kept_streams &) = delete;
    kept_streams &operator=(const kept_streams &) = delete;
    int copy(int fd) const { return copies_[fd]; }

  private:
    int copies_[3];
};

bool same_file(int a, int b)
{
    struct stat of_a {
    }, of_b{};
    return fstat(a, &of_a) == 0 && fstat(b, &of_b) == 0 && of_a.st_dev == of_b.st_dev && of_a.st_ino == of_b.st_ino;
}

bool is_file(int fd, const char *path)
{
    struct stat of_fd {
    }, of_path{};
    return fstat(fd, &of_fd) == 0 && stat(path, &of_path) == 0 && of_fd.st_dev == of_path.st_dev &&
           of_fd.st_ino == of_path.st_ino;
}

int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 256; ++fd)
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count;
}

// Standard output is a file of the test's own before each redirection, so that it can be told apart.
class Redirection : public CoreTest
{
  protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        if (!root_.entered())
            GTEST_SKIP() << "no root folder of the test's own: " << root_.reason();
        before_ = open("/tmp/before", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    void TearDown() override
    {
        if (before_ != -1)
            close(before_);
        CoreTest::TearDown();
    }
    void use_own_output() const
    {
        std::fflush(nullptr);
        dup2(before_, STDOUT_FILENO);
    }

    own_root root_;
    int before_ = -1;
};

TEST_F(Redirection, StreamsGoToTheCollectFileAndBack)
{
    int32_t there = -1, back = -1;
    bool redirected[3] = {}, returned[3] = {};
    int before = 0, after = 0;
    {
        const kept_streams kept;
        use_own_output();
        before = open_descriptors();
        there = sw_bridge_logging_redirect2collectfile("app");
        for (int fd = 0; fd < 3; ++fd)
            redirected[fd] = is_file(fd, "/data/collect/app.log");
        std::printf("collected\n");
        back = sw_bridge_logging_redirect2std();
        for (int fd = 0; fd < 3; ++fd)
            returned[fd] = same_file(fd, before_);
        after = open_descriptors();
        std::printf("as before\n");
    }
    EXPECT_EQ(0, there);
    EXPECT_EQ(0, back);
    EXPECT_THAT(redirected, testing::Each(true));
    EXPECT_THAT(returned, testing::Each(true)) << "all three become what standard output was";
    EXPECT_EQ(before, after) << "no descriptor may stay open";
    EXPECT_EQ("as before\n", read_file("/tmp/before"));
}

// What was buffered when the streams return was meant for the collect file or comes out where they return to; it is
// written either way, before anything else.
TEST_F(Redirection, CollectedTextIsInTheCollectFile)
{
    {
        const kept_streams kept;
        use_own_output();
        sw_bridge_logging_redirect2collectfile("app");
        std::printf("collected\n");
        std::fflush(stdout);
        std::fprintf(stderr, "errors too\n");
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ("collected\nerrors too\n", read_file("/data/collect/app.log"));
}

TEST_F(Redirection, BufferedTextIsFlushedIntoTheCollectFile)
{
    {
        const kept_streams kept;
        use_own_output();
        sw_bridge_logging_redirect2collectfile("app");
        std::printf("not flushed by the caller\n");
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ("not flushed by the caller\n", read_file("/data/collect/app.log"));
    EXPECT_EQ("", read_file("/tmp/before"));
}

TEST_F(Redirection, TextBufferedBeforeIsFlushedToWhereItWasMeantFor)
{
    {
        const kept_streams kept;
        use_own_output();
        std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        std::printf("earlier\n");
        sw_bridge_logging_redirect2collectfile("app");
        std::printf("later\n");
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ("earlier\n", read_file("/tmp/before"));
    EXPECT_EQ("later\n", read_file("/data/collect/app.log"));
}

TEST_F(Redirection, CollectFileIsOpenForReadingAndWriting)
{
    int mode = 0;
    {
        const kept_streams kept;
        sw_bridge_logging_redirect2collectfile("app");
        mode = fcntl(STDIN_FILENO, F_GETFL) & O_ACCMODE;
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ(O_RDWR, mode);
}

// The descriptor of the saved standard output may be anybody's by then.
TEST_F(Redirection, SecondReturnLeavesTheStreamsAlone)
{
    bool same = false;
    std::vector<int> others;
    std::vector<int> still_open;
    {
        const kept_streams kept;
        use_own_output();
        sw_bridge_logging_redirect2collectfile("app");
        sw_bridge_logging_redirect2std();
        for (int i = 0; i < 4; ++i)
            others.push_back(open("/tmp/another", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        sw_bridge_logging_redirect2std();
        same = same_file(STDOUT_FILENO, before_);
        for (const int fd : others)
            still_open.push_back(close(fd));
    }
    EXPECT_TRUE(same);
    EXPECT_THAT(still_open, testing::Each(0));
}

TEST_F(Redirection, FolderIsMadeForEverybody)
{
    const mode_t mask = umask(0);
    {
        const kept_streams kept;
        sw_bridge_logging_redirect2collectfile("app");
        sw_bridge_logging_redirect2std();
    }
    umask(mask);
    struct stat folder {
    };
    ASSERT_EQ(0, stat("/data/collect", &folder));
    EXPECT_EQ(0777u, folder.st_mode & 0777u);
}

TEST_F(Redirection, ExistingFolderIsAFailure)
{
    ASSERT_EQ(0, mkdir("/data/collect", 0755));
    int32_t result = 0;
    bool same = false;
    {
        const kept_streams kept;
        result = sw_bridge_logging_redirect2collectfile("app");
        same = same_file(STDOUT_FILENO, kept.copy(STDOUT_FILENO));
    }
    EXPECT_LT(result, 0);
    EXPECT_TRUE(same);
    expect_line(format("mkdir failed, rv: %d\n", result), kInfo, kFile, kRedirect);
    EXPECT_FALSE(std::filesystem::exists("/data/collect/app.log"));
}

TEST_F(Redirection, SecondRedirectionIsRefused)
{
    int32_t first = -1, second = 0;
    {
        const kept_streams kept;
        first = sw_bridge_logging_redirect2collectfile("app");
        std::filesystem::remove_all("/data/collect");
        second = sw_bridge_logging_redirect2collectfile("app");
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ(0, first);
    EXPECT_EQ(-1, second);
    EXPECT_TRUE(std::filesystem::is_directory("/data/collect")) << "made before anything else is looked at";
    ASSERT_EQ(1u, errors().size());
    int fd = -1;
    EXPECT_EQ(1, std::sscanf(errors()[0].c_str(), "Assert:Unmatch usage, fd is %d.\n", &fd));
    EXPECT_GT(fd, 2);
    expect_line(format("Assert:Unmatch usage, fd is %d.\n", fd), kError, kFile, kRedirect);
}

TEST_F(Redirection, SecondRedirectionIntoTheSameFolderFailsAtTheFolder)
{
    int32_t second = 0;
    {
        const kept_streams kept;
        sw_bridge_logging_redirect2collectfile("app");
        second = sw_bridge_logging_redirect2collectfile("app");
        sw_bridge_logging_redirect2std();
    }
    EXPECT_LT(second, 0);
    EXPECT_THAT(recording::logged(), ElementsAre(format("mkdir failed, rv: %d\n", second)));
}

TEST_F(Redirection, CanBeRepeatedAfterTheReturn)
{
    int32_t second = -1;
    {
        const kept_streams kept;
        sw_bridge_logging_redirect2collectfile("app");
        sw_bridge_logging_redirect2std();
        std::filesystem::remove_all("/data/collect");
        second = sw_bridge_logging_redirect2collectfile("again");
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ(0, second);
    EXPECT_TRUE(std::filesystem::exists("/data/collect/again.log"));
}

TEST_F(Redirection, FileThatCannotBeOpenedIsPrinted)
{
    int32_t result = 0;
    int before = open_descriptors();
    const auto out = output_of([&] { result = sw_bridge_logging_redirect2collectfile("no/such"); });
    EXPECT_EQ(-1, result);
    EXPECT_EQ("/data/collect/no/such.log open failed\n", out);
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(Redirection, OverlongNameIsAFileThatCannotBeOpened)
{
    const std::string name(8000, 'n');
    int32_t result = 0;
    const auto out = output_of([&] { result = sw_bridge_logging_redirect2collectfile(name.c_str()); });
    EXPECT_EQ(-1, result);
    EXPECT_THAT(out, testing::EndsWith(" open failed\n"));
    EXPECT_LE(out.size(), 4096 + sizeof " open failed\n");
}

// What is left of it would name another file: here a file of the folder itself.
TEST_F(Redirection, OverlongNameNamesNoOtherFile)
{
    const std::string folder = "/data/collect/";
    std::string name;
    while (folder.size() + name.size() < 4094)
        name += "./";
    name += "cut-here";
    int32_t result = 0;
    std::string out;
    {
        const kept_streams kept;
        out = output_of([&] { result = sw_bridge_logging_redirect2collectfile(name.c_str()); });
        sw_bridge_logging_redirect2std();
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ((folder + name).substr(0, 4096) + " open failed\n", out);
    EXPECT_TRUE(std::filesystem::is_empty("/data/collect"));
}

TEST_F(Redirection, NullNameIsRefused)
{
    EXPECT_EQ(-2, sw_bridge_logging_redirect2collectfile(nullptr));
    expect_line("Assert:Bad args.", kError, kFile, kRedirect);
    EXPECT_FALSE(std::filesystem::exists("/data/collect"));
}

TEST_F(Redirection, ReturnWithoutRedirectionOnlyFlushes)
{
    int32_t result = -1;
    bool same[3] = {};
    {
        const kept_streams kept;
        use_own_output();
        std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        std::printf("buffered\n");
        result = sw_bridge_logging_redirect2std();
        EXPECT_EQ("buffered\n", read_file("/tmp/before"));
        same[0] = same_file(0, kept.copy(0));
        same[1] = same_file(1, before_);
        same[2] = same_file(2, kept.copy(2));
    }
    EXPECT_EQ(0, result);
    EXPECT_THAT(same, testing::Each(true));
}

}  // namespace
}  // namespace core_test
