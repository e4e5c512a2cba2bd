#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <memory>
#include <string>

#include "Exceptions.h"
#include "FileHelper.h"
#include "TestSupport.h"

TEST(FileSystemQueries, ExistenceTypesAndLinks) {
    TempFolder temp;
    const std::string file = temp.Write("a.tar.gz", "x"), none = temp / "none";
    ASSERT_EQ(symlink(file.c_str(), (temp / "link").c_str()), 0);
    EXPECT_TRUE(FileHelper::IsExist(file) && FileHelper::IsExist(temp.Path()));
    EXPECT_FALSE(FileHelper::IsExist(none));
    EXPECT_TRUE(FileHelper::IsFolder(temp.Path()));
    EXPECT_FALSE(FileHelper::IsFolder(file) || FileHelper::IsFolder(none));  // no exception
    EXPECT_TRUE(FileHelper::IsSymlink(temp / "link"));
    EXPECT_FALSE(FileHelper::IsSymlink(file));
    EXPECT_EQ(FileHelper::GetSymlink(temp / "link"), file);
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::IsSymlink(none); }),
              "File operation error: Cannot lstat path: \"" + none + "\"");
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::GetSymlink(file); }),
              "File operation error: Cannot get symlink path: " + file);
    EXPECT_GT(FileHelper::GetModificationTime(file), 1600000000);
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::GetModificationTime(none); }),
              "File operation error: Cannot get modification time of '" + none + "':No such file or directory");
}

TEST(FileSystemQueries, PathTexts) {
    EXPECT_EQ(FileHelper::GetFileName("/a/b/c.rpm"), "c.rpm");
    EXPECT_EQ(FileHelper::GetFileName("c.rpm"), "c.rpm");
    EXPECT_EQ(FileHelper::GetFileName("/a/b/"), "");
    EXPECT_EQ(FileHelper::GetFileName("C:\\x\\y.rpm", '\\'), "y.rpm");
    EXPECT_EQ(FileHelper::GetFileExtension("a.tar.gz"), "gz");
    EXPECT_EQ(FileHelper::GetFileExtension("README"), "");
    EXPECT_TRUE(FileHelper::IsPattern("*.rpm") && FileHelper::IsPattern("a?"));
    EXPECT_FALSE(FileHelper::IsPattern("/a/b"));

    TempFolder temp;
    const std::string real = FileHelper::GetSystemFullPath(temp.Write("d/f", "x"));
    EXPECT_EQ(FileHelper::GetSystemFullPath(temp.Path() + "/d/../d/f"), real);
    EXPECT_EQ(FileHelper::GetSystemFullPath(temp / "none"), "");
    EXPECT_EQ(FileHelper::GetExecutableDirectory(), FileHelper::GetFilePath(FileHelper::GetSymlink("/proc/self/exe")));
    const std::string cwd = FileHelper::GetWorkingDirectory();
    ASSERT_EQ(chdir(temp.Path().c_str()), 0);
    EXPECT_EQ(FileHelper::GetFullName("d/./f", false), real);
    EXPECT_EQ(FileHelper::GetFullName("absent", false), FileHelper::GetWorkingDirectory() + "/absent");
    EXPECT_EQ(FileHelper::GetFullName("x", true), FileHelper::GetExecutableDirectory() + "/x");
    EXPECT_EQ(FileHelper::GetFullName("/nowhere/x", true), "/nowhere/x");
    ASSERT_EQ(chdir(cwd.c_str()), 0);
}

TEST(FileSystemAttributes, PermissionsGroupsAndRenames) {
    TempFolder temp;
    const std::string source = temp.Write("source", "s"), ghostPath = temp / "ghost";
    ASSERT_EQ(chmod(source.c_str(), 0640), 0);
    FileHelper target(temp.Write("target", "t")), model(source), ghost(temp.Write("ghost", "g"));
    target.CopyAttributesFrom(model);
    target.CopyGroupFrom(model);
    struct stat status;
    ASSERT_EQ(stat((temp / "target").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);

    ASSERT_EQ(mkdir((temp / "sub").c_str(), 0711), 0);
    ASSERT_EQ(chmod((temp / "sub").c_str(), 0711), 0);
    const std::string inner = temp.Write("sub/f", "x");
    FileHelper::InheritParentPermissions(inner);
    ASSERT_EQ(stat(inner.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0711u);
    EXPECT_EQ(
        MessageOf<FileIoException>([&] { FileHelper::InheritParentPermissions(temp / "none/f"); }),
        "File operation error: Cannot read permissions of folder '" + (temp / "none") + "': No such file or directory");
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::InheritParentPermissions(temp / "sub/none"); }),
              "File operation error: Cannot restore permissions for file '" + (temp / "sub/none") +
                  "': No such file or directory");

    ASSERT_EQ(unlink(ghostPath.c_str()), 0);
    EXPECT_EQ(MessageOf<FileIoException>([&] { target.CopyAttributesFrom(ghost); }),
              "File operation error: Cannot read permissions of file: " + ghostPath);
    EXPECT_EQ(MessageOf<FileIoException>([&] { ghost.CopyAttributesFrom(model); }),
              "File operation error: Cannot restore permissions in file: " + ghostPath);
    EXPECT_EQ(MessageOf<FileIoException>([&] { target.CopyGroupFrom(ghost); }),
              "File operation error: Cannot read the group of file: " + ghostPath);
    EXPECT_EQ(MessageOf<FileIoException>([&] { ghost.CopyGroupFrom(model); }),
              "File operation error: Cannot restore group in file: " + ghostPath);

    target.Rename(source);  // replaces the existing file and follows it
    EXPECT_EQ(target.GetPath(), source);
    EXPECT_FALSE(FileHelper::IsExist(temp / "target"));
    EXPECT_EQ(FileHelper::GetSize(source), 1u);
    EXPECT_EQ(MessageOf<FileIoException>([&] { ghost.Rename(temp / "new"); }),
              "File operation error: Cannot rename file " + ghostPath + ": No such file or directory");
}

TEST(FileSystemAttributes, ExtendedAttributes) {
    TempFolder temp;
    const std::string p = temp.Write("f", "x");
    FileHelper file(p);
    try {
        file.WriteXAttr("user.signing", "abc", 3);
    } catch (const FileIoException& e) {
        GTEST_SKIP() << "no user extended attributes here: " << e.what();
    }
    file.WriteXAttr("user.empty", "", 0);
    std::list<std::string> names = file.ListXAttrs();
    names.sort();
    EXPECT_EQ(names, (std::list<std::string>{"user.empty", "user.signing"}));
    char* value = nullptr;
    long long size = -1;
    file.ReadXAttr("user.signing", value, size);
    std::unique_ptr<char[]> owned(value);
    EXPECT_EQ(std::string(value, static_cast<size_t>(size)), "abc");

    file.RemoveXAttr("user.signing");
    EXPECT_EQ(
        MessageOf<FileNotFoundException>([&] { file.ReadXAttr("user.signing", value, size); }),
        "File operation error: File not found: Cannot read xattr 'user.signing' of '" + p + "':No data available");
    EXPECT_EQ(MessageOf<FileIoException>([&] { file.RemoveXAttr("user.signing"); }),
              "File operation error: Cannot remove 'user.signing' xattr of '" + p + "':No data available");
    EXPECT_EQ(MessageOf<FileIoException>([&] { file.WriteXAttr("bad.name", "v", 1); }),
              "File operation error: Cannot write 1 bytes into bad.name' xattr of '" + p + "':Operation not supported");
    ASSERT_EQ(unlink(p.c_str()), 0);
    EXPECT_EQ(MessageOf<FileIoException>([&] { file.ListXAttrs(); }),
              "File operation error: Cannot read xattr list of '" + p + "':No such file or directory");
}
