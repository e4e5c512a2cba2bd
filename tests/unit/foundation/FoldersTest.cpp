#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "Exceptions.h"
#include "FileHelper.h"
#include "TempFolder.h"

namespace {

std::list<std::string> Content(const std::string& folder) {
    std::list<std::string> files;
    FileHelper::GetFolderContent(&files, folder);
    files.sort();
    return files;
}

}  // namespace

TEST(Folders, ListFilesBelowAFolder) {
    TempFolder temp;
    temp.Write("tree/a", "1");
    temp.Write("tree/d/b", "2");
    temp.Write("tree/d/e/c", "3");
    ASSERT_EQ(mkdir((temp / "tree/empty").c_str(), 0755), 0);
    ASSERT_EQ(symlink("/", (temp / "tree/root").c_str()), 0);  // a link is listed, never followed
    const std::string cwd = FileHelper::GetWorkingDirectory();

    EXPECT_EQ(Content(temp / "tree"), (std::list<std::string>{"a", "d/b", "d/e/c", "root"}));
    EXPECT_EQ(FileHelper::GetWorkingDirectory(), cwd);

    std::list<std::string> files{"kept"};
    FileHelper::GetFolderContent(&files, temp / "none");
    EXPECT_EQ(files, std::list<std::string>{"kept"});

    // A relative folder: the walk cannot enter the next level and skips it silently.
    ASSERT_EQ(chdir(temp.Path().c_str()), 0);
    EXPECT_EQ(Content("tree"), (std::list<std::string>{"a", "root"}));
    ASSERT_EQ(chdir(cwd.c_str()), 0);
}

TEST(Folders, DeleteATree) {
    TempFolder temp;
    temp.Write("tree/a", "1");
    temp.Write("tree/d/b", "2");
    temp.Write("tree/d/e/c", "3");
    FileHelper::DeleteFolder(temp / "tree");
    EXPECT_FALSE(FileHelper::IsExist(temp / "tree"));
    FileHelper::DeleteFolder(temp / "none");  // cannot be entered: nothing happens

    temp.Write("rel/d/b", "2");
    const std::string cwd = FileHelper::GetWorkingDirectory();
    ASSERT_EQ(chdir(temp.Path().c_str()), 0);
    try {
        FileHelper::DeleteFolder("rel");
        FAIL() << "a relative tree was deleted";
    } catch (const FileIoException& e) {
        // The nested walk cannot enter rel/d, and the name is relative to rel, where the walk stands.
        EXPECT_STREQ(e.what(), "File operation error: Cannot delete directory rel/d: No such file or directory");
    }
    ASSERT_EQ(chdir(cwd.c_str()), 0);
}

TEST(Folders, CreateAndRename) {
    TempFolder temp;
    const std::string folder = temp / "new";
    EXPECT_EQ(FileHelper::CreateFolder(folder), 0);
    EXPECT_TRUE(FileHelper::IsFolder(folder));
    try {
        FileHelper::CreateFolder(folder);
        FAIL();
    } catch (const FileIoException& e) {
        EXPECT_EQ(std::string(e.what()), "File operation error: Cannot create directory " + folder + ": File exists");
    }
    EXPECT_THROW(FileHelper::CreateFolder(temp / "a/b"), FileIoException);  // parents are not made

    EXPECT_EQ(FileHelper::RenameFolder(folder, temp / "renamed"), 0);
    EXPECT_TRUE(FileHelper::IsFolder(temp / "renamed"));
    try {
        FileHelper::RenameFolder(folder, temp / "other");
        FAIL();
    } catch (const FileIoException& e) {
        EXPECT_EQ(std::string(e.what()),
                  "File operation error: Cannot rename folder " + folder + ": No such file or directory");
    }
}
