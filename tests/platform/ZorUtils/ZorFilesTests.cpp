#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "TempFolder.h"
#include "ZorUtils/ZorUtils.h"

namespace fs = std::filesystem;

TEST(ZorPathUtil, JoinPutsExactlyOneSeparator) {
    EXPECT_EQ(ZOR::PathUtil::join("a/b", "c.png").str(), "a/b/c.png");
    EXPECT_EQ(ZOR::PathUtil::join("a/b/", "c.png").str(), "a/b/c.png");
    EXPECT_EQ(ZOR::PathUtil::join("a/b//", "c.png").str(), "a/b/c.png");
    EXPECT_EQ(ZOR::PathUtil::join("a/b", "/c.png").str(), "a/b/c.png");
    EXPECT_EQ(ZOR::PathUtil::join("/", "c.png").str(), "/c.png");
    EXPECT_EQ(ZOR::PathUtil::join("/tmp", "x/y").str(), "/tmp/x/y");
}

TEST(ZorPathUtil, JoinWithEmptyDirGivesNameUnchanged) {
    EXPECT_EQ(ZOR::PathUtil::join("", "c.png").str(), "c.png");
    EXPECT_EQ(ZOR::PathUtil::join(ZOR::Path(), "/abs/c.png").str(), "/abs/c.png");
}

TEST(ZorPathUtil, ExistsForFileAndFolderButNotMissing) {
    ZOR::test::TempFolder folder;
    const std::string file = folder.file("present.txt");
    std::ofstream(file) << "x";
    EXPECT_TRUE(ZOR::PathUtil::exists(file));
    EXPECT_TRUE(ZOR::PathUtil::exists(folder.path().string()));
    EXPECT_FALSE(ZOR::PathUtil::exists(folder.file("missing.txt")));
    EXPECT_FALSE(ZOR::PathUtil::exists(folder.file("missing/deeper")));
    EXPECT_FALSE(ZOR::PathUtil::exists(""));
}

TEST(ZorDirUtil, CreateMakesMissingParents) {
    ZOR::test::TempFolder folder;
    const fs::path deep = folder.path() / "a" / "b" / "c";
    EXPECT_TRUE(ZOR::DirUtil::create(deep.string()));
    EXPECT_TRUE(fs::is_directory(deep));
    // Creating what already exists succeeds.
    EXPECT_TRUE(ZOR::DirUtil::create(deep.string()));
}

TEST(ZorDirUtil, CreateFailsWhenAFileIsInTheWay) {
    ZOR::test::TempFolder folder;
    const std::string file = folder.file("blocker");
    std::ofstream(file) << "x";
    EXPECT_FALSE(ZOR::DirUtil::create(file));
    EXPECT_FALSE(ZOR::DirUtil::create(file + "/below"));
    EXPECT_TRUE(fs::is_regular_file(file));
}

TEST(ZorDirUtil, RemoveAllDeletesTheWholeTree) {
    ZOR::test::TempFolder folder;
    const fs::path root = folder.path() / "tree";
    fs::create_directories(root / "x" / "y");
    std::ofstream((root / "top.txt").string()) << "1";
    std::ofstream((root / "x" / "y" / "leaf.txt").string()) << "2";
    EXPECT_TRUE(ZOR::DirUtil::removeAll(root.string()));
    EXPECT_FALSE(fs::exists(root));
    EXPECT_TRUE(fs::is_directory(folder.path()));
}

TEST(ZorDirUtil, RemoveAllOfMissingFolderSucceeds) {
    ZOR::test::TempFolder folder;
    EXPECT_TRUE(ZOR::DirUtil::removeAll(folder.file("never-created")));
    EXPECT_TRUE(ZOR::test::TempFolder::entries(folder.path()).empty());
}
