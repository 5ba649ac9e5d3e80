/* The file layer, by device path. Two system calls can be made to fail from here. */
#include "tamo_os_file.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

bool diskFull = false;
bool noUnnamedFiles = false;

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

/* The names that the C library gives them, with and without large file offsets. */
extern "C" {
ssize_t sendfilePlain(int, int, void *, size_t) __asm__("sendfile");
ssize_t sendfileLarge(int, int, void *, size_t) __asm__("sendfile64");
int openatPlain(int, const char *, int, ...) __asm__("openat");
int openatLarge(int, const char *, int, ...) __asm__("openat64");
}

/* On a full disk, half of the first piece fits. */
ssize_t sendfilePlain(int target, int source, void *, size_t count) {
    static bool half = false;
    half = diskFull && !half;
    if (diskFull && !half) {
        errno = ENOSPC;
        return -1;
    }
    size_t fits = half ? count / 2 : count;
    return next<ssize_t(int, int, void *, size_t)>("sendfile64")(target, source, nullptr, fits);
}

ssize_t sendfileLarge(int target, int source, void *offset, size_t count) {
    return sendfilePlain(target, source, offset, count);
}

static int openOrRefuse(int directory, const char *path, int flags, mode_t mode) {
    if (noUnnamedFiles && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return next<int(int, const char *, int, ...)>("openat64")(directory, path, flags, mode);
}

int openatPlain(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return openOrRefuse(directory, path, flags, mode);
}

int openatLarge(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return openOrRefuse(directory, path, flags, mode);
}

namespace {

class FileLayer : public testing::Test {
  protected:
    FileLayer() {
        char buffer[PATH_MAX];
        EXPECT_EQ(buffer, OsFileNativePath("/data", buffer, sizeof(buffer)));
        place = fs::path(buffer);
        fs::remove_all(place);
        fs::create_directory(place);
    }
    ~FileLayer() override { diskFull = noUnnamedFiles = false; }

    void write(const std::string &name, const std::string &text) {
        std::ofstream(place / name, std::ios::binary) << text;
    }
    std::string read(const std::string &name) {
        std::ifstream file(place / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::set<std::string> walk(const char *path) {
        std::set<std::string> names;
        OsDir *dir = OsOpenDir(path);
        EXPECT_NE(nullptr, dir);
        while (OsDirEntry *entry = OsReadDir(dir)) {
            EXPECT_TRUE(names.insert(entry->name).second) << entry->name;
        }
        OsCloseDir(dir);
        return names;
    }

    fs::path place;
};

TEST_F(FileLayer, WalksADirectoryByEitherSeparator) {
    write("one", "1");
    fs::create_directory(place / "two");
    std::set<std::string> expected = {".", "..", "one", "two"};
    EXPECT_EQ(expected, walk("/data/"));
    EXPECT_EQ(expected, walk("\\data"));
    EXPECT_EQ(nullptr, OsOpenDir("/data/one"));
    EXPECT_EQ(nullptr, OsOpenDir("/data/three"));
    EXPECT_EQ(nullptr, OsOpenDir("/data/../.."));
    EXPECT_EQ(nullptr, OsOpenDir(nullptr));
    EXPECT_EQ(nullptr, OsReadDir(nullptr));
    OsCloseDir(nullptr);
}

TEST_F(FileLayer, CopyReplacesTheDestinationAndKeepsTheMode) {
    std::string large(3 << 20, 'x');
    for (bool named : {false, true}) {
        noUnnamedFiles = named;
        write("from", large);
        write("to", "old");
        ASSERT_EQ(0, chmod((place / "from").c_str(), 04640));
        ASSERT_EQ(0, OsCopyFile("/data/from", "/data\\to"));
        ASSERT_EQ(0, OsCopyFile("/data/from", "/data/new"));
        EXPECT_TRUE(large == read("to") && large == read("new"));
        struct stat status;
        ASSERT_EQ(0, stat((place / "to").c_str(), &status));
        EXPECT_EQ(0640U, status.st_mode & 07777);
        EXPECT_EQ((std::set<std::string>{".", "..", "from", "to", "new"}), walk("/data"));
        fs::remove(place / "new");
    }
}

TEST_F(FileLayer, ReaderSeesTheOldFileOrTheWholeNewOne) {
    std::string a(1 << 18, 'a');
    std::string b(1 << 19, 'b');
    write("a", a);
    write("b", b);
    write("to", a);
    std::atomic<bool> stop = false;
    std::atomic<int> seen = 0;
    std::thread reader([&] {
        while (!stop) {
            std::string text = read("to");
            ASSERT_TRUE(text == a || text == b) << text.size();
            seen++;
        }
    });
    for (int round = 0; round < 20 || (seen < 20 && !HasFailure()); round++) {
        ASSERT_EQ(0, OsCopyFile(round % 2 == 0 ? "/data/b" : "/data/a", "/data/to"));
    }
    stop = true;
    reader.join();
}

TEST_F(FileLayer, CopyThatFailsLeavesTheDestinationAndNothingElse) {
    write("from", std::string(100000, 'n'));
    write("to", "old");
    ASSERT_EQ(0, mkfifo((place / "pipe").c_str(), 0600));
    std::set<std::string> before = walk("/data");
    for (bool named : {false, true}) {
        noUnnamedFiles = named;
        diskFull = true;
        EXPECT_NE(0, OsCopyFile("/data/from", "/data/to"));
        EXPECT_EQ(ENOSPC, errno);
        diskFull = false;
        EXPECT_NE(0, OsCopyFile("/data/from", "/data/no/such"));
        EXPECT_EQ(ENOENT, errno);
        EXPECT_NE(0, OsCopyFile("/data/absent", "/data/to"));
        EXPECT_NE(0, OsCopyFile("/data/pipe", "/data/to"));
        EXPECT_NE(0, OsCopyFile("/data", "/data/to"));
        EXPECT_NE(0, OsCopyFile("/data/from", "/data/to/"));
        EXPECT_NE(0, OsCopyFile("/data/from", "/data/../../to"));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_NE(0, OsCopyFile("/data/from", nullptr));
        EXPECT_EQ("old", read("to"));
        EXPECT_EQ(before, walk("/data"));
    }
}

TEST_F(FileLayer, RemovesFilesAndEmptyDirectories) {
    write("file", "x");
    fs::create_directories(place / "full/inner");
    EXPECT_NE(0, OsRemove("/data/full"));
    EXPECT_EQ(0, OsRemove("/data/full/inner"));
    EXPECT_EQ(0, OsRemove("/data\\full\\"));
    EXPECT_EQ(0, OsRemove("/data/file"));
    EXPECT_NE(0, OsRemove("/data/file"));
    EXPECT_NE(0, OsRemove("/../file"));
    EXPECT_TRUE(fs::is_empty(place));
}

TEST_F(FileLayer, OpensStreamsAsTheCLibraryDoes) {
    FILE *stream = OsFopen("/data/s", "w+b");
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(stream), F_GETFD));
    EXPECT_EQ(5, fprintf(stream, "hello"));
    fclose(stream);
    EXPECT_EQ("hello", read("s"));
    stream = OsFopen("\\data/./s", "rb");
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ('h', fgetc(stream));
    EXPECT_EQ(EOF, fputc('x', stream));
    fclose(stream);
    EXPECT_EQ(nullptr, OsFopen("/data/absent", "rb"));
    EXPECT_EQ(ENOENT, errno);
    for (const char *mode : {"", "q", "rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr"}) {
        EXPECT_EQ(nullptr, OsFopen("/data/s", mode)) << mode;
    }
    EXPECT_EQ(nullptr, OsFopen("/data/s", nullptr));
    EXPECT_EQ(nullptr, OsFopen("/data/../../s", "rb"));
}

}  // namespace
