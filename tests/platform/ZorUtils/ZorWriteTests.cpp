#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TempFolder.h"
#include "ZorUtils/ZorUtils.h"

namespace fs = std::filesystem;

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The id of a process that has ended (and been waited for).
pid_t endedProcess() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return child;
}

TEST(ZorCreateFolder, MakesMissingParentsAndAcceptsAFolderThatExists) {
    ZOR::test::TempFolder folder;
    const fs::path deep = folder.path() / "a" / "b" / "c";
    EXPECT_EQ(ZOR::createFolder(deep.string()), 0);
    EXPECT_TRUE(fs::is_directory(deep));
    EXPECT_EQ(ZOR::createFolder(deep.string()), 0);
    EXPECT_EQ(ZOR::createFolder(deep.string() + "//"), 0);
}

TEST(ZorCreateFolder, AFileInTheWayIsNotAFolderAndTheFailureIsKept) {
    ZOR::test::TempFolder folder;
    const std::string file = folder.file("blocker");
    std::ofstream(file) << "x";
    EXPECT_EQ(ZOR::createFolder(file), ENOTDIR);
    std::string failed;
    EXPECT_EQ(ZOR::lastWriteFailure(file, &failed), ENOTDIR);
    EXPECT_EQ(failed, file);
    // Below the file: the file stands in the way of a parent.
    EXPECT_EQ(ZOR::createFolder(file + "/below/deeper"), ENOTDIR);
    EXPECT_EQ(ZOR::lastWriteFailure(file + "/below/deeper/", &failed), ENOTDIR);
    EXPECT_EQ(failed, file + "/below/deeper");
    EXPECT_TRUE(fs::is_regular_file(file));
    EXPECT_FALSE(ZOR::DirUtil::create(file));
}

TEST(ZorCreateFolder, EmptyPathIsAnInvalidArgument) { EXPECT_EQ(ZOR::createFolder(ZOR::Path()), EINVAL); }

TEST(ZorCheckFolderWritable, CreatesTheFolderAndLeavesNothingInIt) {
    ZOR::test::TempFolder folder;
    const fs::path target = folder.path() / "x" / "y";
    EXPECT_EQ(ZOR::checkFolderWritable(target.string()), 0);
    EXPECT_TRUE(fs::is_directory(target));
    EXPECT_TRUE(ZOR::test::TempFolder::entries(target).empty());
}

TEST(ZorCheckFolderWritable, AFileInTheWayIsNotAFolder) {
    ZOR::test::TempFolder folder;
    const std::string file = folder.file("file");
    std::ofstream(file) << "x";
    EXPECT_EQ(ZOR::checkFolderWritable(file), ENOTDIR);
    EXPECT_EQ(ZOR::checkFolderWritable(file + "/inside"), ENOTDIR);
}

TEST(ZorWriteFileAtomically, WritesAndReplacesTheWholeFileLeavingNoTemporary) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("data.json");
    const std::string first = "{\"first\": 1}\n";
    const std::string second = "[2]";
    ASSERT_EQ(ZOR::writeFileAtomically(path.c_str(), first.data(), first.size()), 0);
    EXPECT_EQ(readAll(path), first);
    ASSERT_EQ(ZOR::writeFileAtomically(path.c_str(), second.data(), second.size()), 0);
    EXPECT_EQ(readAll(path), second);
    ASSERT_EQ(ZOR::writeFileAtomically(path.c_str(), nullptr, 0), 0);
    EXPECT_EQ(readAll(path), "");
    EXPECT_EQ(ZOR::test::TempFolder::entries(folder.path()), std::set<std::string>{"data.json"});
}

TEST(ZorWriteFileAtomically, AFailureGivesItsErrnoKeptForTheFolder) {
    ZOR::test::TempFolder folder;
    const std::string missing = folder.file("absent");
    const std::string path = missing + "/out.txt";
    EXPECT_EQ(ZOR::writeFileAtomically(path.c_str(), "x", 1), ENOENT);
    std::string failed;
    EXPECT_EQ(ZOR::lastWriteFailure(missing, &failed), ENOENT);
    EXPECT_EQ(failed, path);
    // Onto a folder: the rename fails and the temporary goes.
    const fs::path target = folder.path() / "taken";
    fs::create_directory(target);
    std::ofstream((target / "inside.txt").string()) << "keep";
    EXPECT_EQ(ZOR::writeFileAtomically(target.string().c_str(), "x", 1), EISDIR);
    EXPECT_EQ(ZOR::lastWriteFailure(folder.path().string(), &failed), EISDIR);
    EXPECT_EQ(failed, target.string());
    EXPECT_EQ(ZOR::test::TempFolder::entries(folder.path()), std::set<std::string>{"taken"});
    EXPECT_EQ(ZOR::writeFileAtomically(nullptr, "x", 1), EINVAL);
    EXPECT_EQ(ZOR::writeFileAtomically("", "x", 1), EINVAL);
}

TEST(ZorWriteFileAtomically, AFolderWithoutFailuresHasNone) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("ok.txt");
    ASSERT_EQ(ZOR::writeFileAtomically(path.c_str(), "x", 1), 0);
    std::string failed = "untouched";
    EXPECT_EQ(ZOR::lastWriteFailure(folder.path().string(), &failed), 0);
    EXPECT_EQ(failed, "untouched");
}

TEST(ZorDumpPng, AFailureIsKeptForTheFolder) {
    ZOR::test::TempFolder folder;
    const std::string missing = folder.file("gone");
    const std::vector<unsigned char> picture(4 * 4 * 4, 200);
    EXPECT_NE(ZOR::dumpPNG(4, 4, picture.data(), (missing + "/p.png").c_str(), -1), 0);
    EXPECT_EQ(ZOR::lastWriteFailure(missing, nullptr), ENOENT);
}

TEST(ZorWriteErrorText, NamesTheCausesInWords) {
    EXPECT_EQ(ZOR::writeErrorText(ENOSPC), "disk full");
    EXPECT_EQ(ZOR::writeErrorText(EDQUOT), "disk full");
    EXPECT_EQ(ZOR::writeErrorText(EROFS), "read-only file system");
    EXPECT_EQ(ZOR::writeErrorText(EACCES), "permission denied");
    EXPECT_EQ(ZOR::writeErrorText(EPERM), "permission denied");
    EXPECT_EQ(ZOR::writeErrorText(ENOTDIR), "not a folder");
    EXPECT_EQ(ZOR::writeErrorText(EISDIR), std::string(std::strerror(EISDIR)));
    EXPECT_EQ(ZOR::writeErrorText(ENOENT), std::string(std::strerror(ENOENT)));
}

TEST(ZorAbandonedTemporary, OnlyTheTemporariesOfEndedWritersAre) {
    const std::string dead = std::to_string(endedProcess());
    const std::string self = std::to_string(::getpid());
    EXPECT_TRUE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + dead + "-0"));
    EXPECT_TRUE(ZOR::isAbandonedTemporary("data.json.tmp-" + dead + "-12"));
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + self + "-0"));  // this process
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-1-0"));             // init, alive
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png"));
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-0-1"));  // no process
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + dead));
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + dead + "-"));
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + dead + "-1x"));
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp--" + dead + "-1"));
    EXPECT_FALSE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-99999999999999999999-1"));
    EXPECT_FALSE(ZOR::isAbandonedTemporary(".tmp-" + dead + "-1"));
}

TEST(ZorAbandonedTemporary, RemovingTakesOnlyThoseOfEndedWritersDirectlyInTheFolder) {
    ZOR::test::TempFolder folder;
    const std::string dead = std::to_string(endedProcess());
    const std::string self = std::to_string(::getpid());
    for (const std::string& name : {std::string("1.png"), "1.png.tmp-" + dead + "-0", "2.png.tmp-" + dead + "-5",
                                    "3.png.tmp-" + self + "-0", std::string("notes.tmp-x-1")})
        std::ofstream(folder.file(name)) << "x";
    fs::create_directory(folder.path() / "below");
    std::ofstream((folder.path() / "below" / ("4.png.tmp-" + dead + "-0")).string()) << "x";
    EXPECT_EQ(ZOR::removeAbandonedTemporaries(folder.path().string()), 2);
    EXPECT_EQ(ZOR::test::TempFolder::entries(folder.path()),
              (std::set<std::string>{"1.png", "3.png.tmp-" + self + "-0", "notes.tmp-x-1", "below"}));
    EXPECT_EQ(ZOR::test::TempFolder::entries(folder.path() / "below"),
              std::set<std::string>{"4.png.tmp-" + dead + "-0"});
    EXPECT_EQ(ZOR::removeAbandonedTemporaries(folder.file("missing")), 0);
}

// A writer killed and not yet reaped (a zombie, as when its parent went
// too) writes nothing any more: its temporaries are abandoned.
TEST(ZorAbandonedTemporary, AWriterThatEndedButIsNotReapedYetCountsAsGone) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(0);
    // Not reaped yet: the child stays a zombie until waitpid below. Its
    // state is read from /proc once it has exited.
    bool zombie = false;
    for (int tries = 0; tries < 100000 && !zombie; ++tries) {
        siginfo_t info{};
        zombie =
            ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT | WNOHANG) == 0 && info.si_pid == child;
    }
    ASSERT_TRUE(zombie);
    EXPECT_TRUE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + std::to_string(child) + "-0"));
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(ZOR::isAbandonedTemporary("7_64_36.png.tmp-" + std::to_string(child) + "-0"));
}

}  // namespace
