#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "Exceptions.h"
#include "FileHelper.h"
#include "TestSupport.h"

namespace {

std::list<std::string> Content(const std::string& folder) {
    std::list<std::string> files;
    FileHelper::GetFolderContent(&files, folder);
    files.sort();
    return files;
}

}  // namespace

TEST(Folders, ListAndDeleteTrees) {
    TempFolder temp;
    for (const char* name : {"tree/a", "tree/d/b", "tree/d/e/c", "rel/d/b"}) temp.Write(name, "x");
    ASSERT_EQ(mkdir((temp / "tree/empty").c_str(), 0755), 0);
    ASSERT_EQ(symlink("/", (temp / "tree/root").c_str()), 0);  // listed, never followed
    const std::string cwd = FileHelper::GetWorkingDirectory();

    EXPECT_EQ(Content(temp / "tree"), (std::list<std::string>{"a", "d/b", "d/e/c", "root"}));
    EXPECT_EQ(FileHelper::GetWorkingDirectory(), cwd);
    std::list<std::string> files{"kept"};
    FileHelper::GetFolderContent(&files, temp / "none");
    EXPECT_EQ(files, std::list<std::string>{"kept"});

    FileHelper::DeleteFolder(temp / "tree");
    EXPECT_FALSE(FileHelper::IsExist(temp / "tree"));
    FileHelper::DeleteFolder(temp / "none");  // cannot be entered: nothing happens

    // A relative folder: the walk cannot enter the next level, so listing skips it silently and
    // deleting fails on the subfolder (named relative to rel, where the walk stands).
    ASSERT_EQ(chdir(temp.Path().c_str()), 0);
    EXPECT_EQ(Content("rel"), std::list<std::string>{});
    EXPECT_EQ(MessageOf<FileIoException>([] { FileHelper::DeleteFolder("rel"); }),
              "File operation error: Cannot delete directory rel/d: No such file or directory");
    ASSERT_EQ(chdir(cwd.c_str()), 0);
}

TEST(Folders, CreateAndRename) {
    TempFolder temp;
    const std::string folder = temp / "new";
    EXPECT_EQ(FileHelper::CreateFolder(folder), 0);
    EXPECT_TRUE(FileHelper::IsFolder(folder));
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::CreateFolder(folder); }),
              "File operation error: Cannot create directory " + folder + ": File exists");
    EXPECT_THROW(FileHelper::CreateFolder(temp / "a/b"), FileIoException);  // parents are not made

    EXPECT_EQ(FileHelper::RenameFolder(folder, temp / "renamed"), 0);
    EXPECT_TRUE(FileHelper::IsFolder(temp / "renamed"));
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::RenameFolder(folder, temp / "other"); }),
              "File operation error: Cannot rename folder " + folder + ": No such file or directory");
}
