#pragma once
// FileHelper: the one class through which the module touches files. A file is opened once, read at
// absolute positions on an unbuffered POSIX descriptor, and closed when the object dies. Static
// operations answer questions about paths, copy metadata, walk folders and expand wildcards.
//
// Every failure is thrown as a FileIoException (FileNotFoundException where the file is missing)
// whose detail names the path and, where the system gave one, the strerror() reason.

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <string>

class FileHelper {
public:
    // What a folder walk does with the entries it reaches; any other value only walks.
    enum FolderAction : int32_t {
        FolderActionList = 0,
        FolderActionDelete = 1,
    };

    // Lists the files below folder, appending their paths relative to it (as GetFolderContent does).
    using FolderLister = std::function<void(std::list<std::string>* list, const std::string& folder)>;

    // Opens an existing file for reading. A directory is accepted: the object is then a folder
    // with no descriptor, whose reads return 0 and whose writes do nothing.
    explicit FileHelper(const std::string& path);
    // Opens folder + name (plain concatenation) for reading, or creates/truncates it for writing
    // with the permission bits of the folder that will hold it.
    FileHelper(const std::string& folder, const std::string& name, bool readOnly);
    // Closes the descriptor; a failing close throws, unless an exception is already in flight.
    ~FileHelper() noexcept(false);

    FileHelper(const FileHelper&) = delete;
    FileHelper& operator=(const FileHelper&) = delete;

    void Close();
    // Closes and deletes the file; does nothing when no descriptor is open.
    void Remove();

    // Absolute seek. Positions are meant to stay below 2 GiB: a result whose low 32 bits read as
    // negative is reported as a positioning error even when the seek succeeded.
    unsigned long long SetPosition(unsigned long long pos) const;
    // One read() call; a short count or -1 is returned as it is.
    int32_t Read(char* buf, unsigned long long len) const;
    int32_t Read(char* buf, unsigned long long pos, unsigned long long len) const;

    // Fixed-width reads at pos, in host byte order (no swapping): a big-endian field comes back
    // byte-reversed on x86. The read count is not checked; bytes not read keep what the scratch
    // held before (zero for a fresh object). A folder reads as 0.
    uint8_t GetUInt8(unsigned long long pos);
    uint16_t GetUInt16(unsigned long long pos);
    uint32_t GetUInt32(unsigned long long pos);
    uint64_t GetUInt64(unsigned long long pos);

    void WriteBlock(const char* buf, uint32_t len);
    void AddBlankArea(uint32_t len);
    // Copies bytes [from, to) of this file to the current position of dest.
    void CopyData(FileHelper* dest, uint32_t from, uint32_t to);

    bool IsFolder() const { return folder_; }
    // True only for objects made by the one-argument constructor, even when the two-string form
    // opened for reading.
    bool IsReadOnly() const { return readOnly_; }
    const std::string& GetPath() const { return path_; }
    // The block size in which callers read large files.
    uint32_t GetBufferSize() const { return 0x10000; }
    // Tells the kernel that the file will be read from pos to its end in order (read-ahead); a
    // hint only, so a file that cannot take it is read all the same.
    void AdviseSequential(unsigned long long pos) const;

    // The part of path before its last slash; empty when there is none.
    static std::string GetFilePath(const std::string& path);
    // Size in bytes (0 for a directory). Sizes are 32-bit: a file of 2 GiB or more is refused
    // as the 32-bit stat() refuses it, with EOVERFLOW.
    static uint32_t GetSize(const std::string& path);

    // File-system queries.
    static bool IsExist(const std::string& path);
    static bool IsFolder(const std::string& path);
    static bool IsSymlink(const std::string& path);
    static std::string GetSymlink(const std::string& path);
    static time_t GetModificationTime(const std::string& path);
    static std::string GetFileName(const std::string& path);
    static std::string GetFileName(const std::string& path, char separator);
    static std::string GetFileExtension(const std::string& path);
    static std::string GetSystemFullPath(const std::string& path);
    static std::string GetExecutableDirectory();
    static std::string GetWorkingDirectory();
    // An absolute name for path: a relative path is taken relative to the executable's folder when
    // relativeToExecutable is true, else to the working directory; an existing result is resolved
    // to its canonical form (symbolic links, "." and ".." removed).
    static std::string GetFullName(const std::string& path, bool relativeToExecutable);
    static bool IsPattern(const std::string& text);

    // Metadata.
    void CopyAttributesFrom(const FileHelper& other);
    void CopyGroupFrom(const FileHelper& other);
    static void InheritParentPermissions(const std::string& path);
    // Closes this file and renames it (replacing an existing newPath); the object then names newPath.
    void Rename(const std::string& newPath);
    std::list<std::string> ListXAttrs();
    // value is allocated with new[] for the caller; a missing attribute throws FileNotFoundException.
    void ReadXAttr(const std::string& name, char*& value, long long& size);
    void WriteXAttr(const std::string& name, const char* value, long long size);
    void RemoveXAttr(const std::string& name);

    // Folder operations. A walk changes the working directory while it runs; pass absolute paths.
    static void ProcessFolder(std::list<std::string>* list, const std::string& folder, const std::string& prefix,
                              FolderAction action);
    static void GetFolderContent(std::list<std::string>* list, const std::string& folder);
    static void DeleteFolder(const std::string& folder);
    static int CreateFolder(const std::string& path);
    static int RenameFolder(const std::string& from, const std::string& to);

    // Wildcard listing: "?" matches one character and "*" any run of characters within one path
    // component, "**" any run across components ("**/" also matches no folder at all). The files
    // that match are appended to files in sorted order, written the way the pattern was written;
    // the result is their count. A pattern without wildcards yields the file itself when it exists.
    static int ParseWildcards(const std::string& pattern, std::list<std::string>& files,
                              const FolderLister& lister = FolderLister());
    // Placeholders beside ParseWildcards: they list nothing and return 0.
    static int GetFileList(const std::string& pattern, std::list<std::string>& files);
    static int ParseFolder(const std::string& folder, std::list<std::string>& files);

private:
    void ThrowIfNotOpen() const;
    // Reads sizeof(T) bytes at pos into the scratch and returns them in host order.
    template <typename T>
    T ReadScalar(unsigned long long pos);
    static void WalkFolder(std::list<std::string>* list, const std::string& folder, const std::string& prefix,
                           FolderAction action, bool top);

    char scratch_[8];  // the target of the fixed-width readers
    int32_t descriptor_;
    std::string path_;
    bool readOnly_;
    bool folder_;
};

// Deletes a FileHelper that a smart pointer owns. A deleter must not throw: when the file cannot be
// closed, the object is freed all the same and the failure is dropped (closing a file opened for
// reading does not fail in practice).
// The text of a system error number (strerror's), safe on any thread.
std::string SystemErrorText(int error);

struct FileHelperRelease {
    void operator()(FileHelper* file) const;
};
