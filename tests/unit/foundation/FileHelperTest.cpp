#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "Exceptions.h"
#include "FileHelper.h"
#include "TestSupport.h"

namespace {

std::string Contents(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// A path that exists but that even root cannot open for reading: a UNIX socket.
std::string MakeSocket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    close(fd);
    return path;
}

}  // namespace

TEST(FileHelper, OpeningReportsEachFailureWithItsText) {
    TempFolder temp;
    const std::string missing = temp / "missing.rpm", socketPath = MakeSocket(temp / "s");
    const std::string belowFile = temp.Write("plain", "x") + "/below";
    EXPECT_EQ(
        MessageOf<FileNotFoundException>([&] { FileHelper file(missing); }),
        "File operation error: File not found: Cannot get status for '" + missing + "': No such file or directory");
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper file(socketPath); }),
              "File operation error: Cannot open file " + socketPath + ": No such device or address");
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper file(belowFile); }),  // not FileNotFoundException
              "File operation error: Cannot get status for '" + belowFile + "': Not a directory");
    // A FIFO without a writer opens at once instead of blocking, and cannot be positioned.
    ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
    FileHelper fifo(temp / "fifo");
    EXPECT_THROW(fifo.GetUInt32(0), FileIoException);
}

TEST(FileHelper, AFolderReadsZeroAndIgnoresWrites) {
    TempFolder temp;
    FileHelper folder(temp.Path());
    EXPECT_TRUE(folder.IsFolder());
    EXPECT_EQ(folder.GetUInt8(0) + folder.GetUInt32(0) + folder.GetUInt64(0), 0u);
    folder.WriteBlock("abc", 3);
    folder.Remove();  // nothing is open: nothing is removed
    EXPECT_TRUE(FileHelper::IsFolder(temp.Path()));
    char byte;
    EXPECT_EQ(MessageOf<FileIoException>([&] { folder.Read(&byte, 0, 1); }),
              "File operation error: File '" + temp.Path() + "' was not open");
}

TEST(FileHelper, FixedWidthReadersReturnHostOrder) {
    TempFolder temp;
    FileHelper file(temp.Write("f", std::string("\x00\x00\x00\x10\xED\xAB\xEE\xDB\x03\x00", 10)));
    EXPECT_EQ(file.GetUInt32(0), 0x10000000u);
    EXPECT_EQ(file.GetUInt16(8), 3u);
    EXPECT_EQ(file.GetUInt8(4), 0xED);
    EXPECT_EQ(file.GetUInt64(0), 0xDBEEABED10000000ull);
    EXPECT_EQ(file.GetBufferSize(), 65536u);
    // Past the end the bytes not read keep what the scratch held; a fresh scratch is zero.
    EXPECT_EQ(file.GetUInt32(8), 0x10000003u);
    FileHelper fresh(temp.Write("short", "\x01"));
    EXPECT_EQ(fresh.GetUInt32(0), 1u);
    char buffer[16];
    EXPECT_EQ(file.Read(buffer, 6, 16), 4);
    EXPECT_EQ(file.Read(buffer, 100, 16), 0);
}

TEST(FileHelper, PositionsAndSizesAre32Bit) {
    TempFolder temp;
    const std::string path = temp.Write("sparse", "x");
    ASSERT_EQ(truncate(path.c_str(), 0x90000000LL), 0);
    FileHelper file(path);
    EXPECT_EQ(file.SetPosition(0x7FFFFFFF), 0x7FFFFFFFull);
    EXPECT_EQ(MessageOf<FileIoException>([&] { file.SetPosition(0x80000000ull); }),
              "File operation error: Error on positioning file '" + path + "': Value too large for defined data type");
    EXPECT_EQ(file.SetPosition(0x100000005ull), 0x100000005ull);  // low word positive again
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::GetSize(path); }),
              "File operation error: Cannot get size of '" + path + "':Value too large for defined data type");

    EXPECT_EQ(FileHelper::GetSize(temp.Write("seven", "1234567")), 7u);
    EXPECT_EQ(FileHelper::GetSize(temp.Path()), 0u);
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper::GetSize(temp / "none"); }),
              "File operation error: Cannot get size of '" + (temp / "none") + "':No such file or directory");
    EXPECT_EQ(FileHelper::GetFilePath("/a/b/c.rpm"), "/a/b");
    EXPECT_EQ(FileHelper::GetFilePath("c.rpm"), "");
    EXPECT_EQ(FileHelper::GetFilePath("/c.rpm"), "");
}

TEST(FileHelper, CreatesFilesWithTheirFolderPermissions) {
    TempFolder temp;
    ASSERT_EQ(mkdir((temp / "dir").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((temp / "dir/sub").c_str(), 0750), 0);
    ASSERT_EQ(chmod((temp / "dir/sub").c_str(), 0750), 0);
    {
        FileHelper out(temp.Path() + "/dir\\sub/", "x", false);
        EXPECT_EQ(out.GetPath(), temp / "dir/sub/x");
        EXPECT_FALSE(out.IsFolder());
        EXPECT_FALSE(out.IsReadOnly());
        out.WriteBlock("head", 4);
        out.AddBlankArea(3);
        FileHelper in(temp.Write("source", "0123456789"));
        in.CopyData(&out, 2, 5);
        in.CopyData(&out, 5, 5);
        EXPECT_THROW(in.CopyData(&out, 5, 2), FileIoException);
    }
    struct stat status;
    ASSERT_EQ(stat((temp / "dir/sub/x").c_str(), &status), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(status.st_mode & 0777, 0750u & ~mask);
    EXPECT_EQ(Contents(temp / "dir/sub/x"), std::string("head\0\0\0"
                                                        "234",
                                                        10));

    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper out(temp / "nowhere/", "x", false); }),
              "File operation error: Cannot read permissions of folder '" + (temp / "nowhere") +
                  "': No such file or directory");
    EXPECT_EQ(MessageOf<FileIoException>([&] { FileHelper in(temp.Path(), "/absent", true); }),
              "File operation error: Cannot open file " + (temp / "absent") + ": No such file or directory");
    // Only the one-argument form marks an object read-only; both forms accept folders.
    FileHelper folder(temp.Path(), "/dir", true);
    EXPECT_TRUE(folder.IsFolder());
    EXPECT_FALSE(folder.IsReadOnly());
    EXPECT_TRUE(FileHelper(temp.Path()).IsReadOnly());
}

TEST(FileHelper, ClosingAndRemoving) {
    TempFolder temp;
    const std::string path = temp.Write("doomed", "x");
    FileHelper file(path);
    file.Close();
    file.Close();
    file.Remove();  // closed: not removed
    EXPECT_TRUE(FileHelper::IsExist(path));
    FileHelper(path).Remove();
    EXPECT_FALSE(FileHelper::IsExist(path));

    FileHelper writer(temp.Path(), "/gone", false);
    ASSERT_EQ(unlink((temp / "gone").c_str()), 0);
    EXPECT_EQ(MessageOf<FileIoException>([&] { writer.Remove(); }),
              "File operation error: Cannot remove file " + (temp / "gone") + ": No such file or directory");
    FileHelper closed(temp.Write("w", ""));
    closed.Close();
    EXPECT_EQ(MessageOf<FileIoException>([&] { closed.WriteBlock("a", 1); }),
              "File operation error: Error on writing to file: " + (temp / "w") + ": Bad file descriptor");
}
