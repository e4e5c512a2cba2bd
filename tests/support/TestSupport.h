#pragma once
// Helpers shared by the test programs.

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

// The what() text of the E that action throws, or a marker when it throws nothing.
template <typename E, typename F>
std::string MessageOf(F action) {
    try {
        action();
    } catch (const E& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "signing-test-XXXXXX").string();
        path_ = mkdtemp(&pattern[0]);
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

    // Writes bytes into a file below the folder (creating folders on the way) and returns its path.
    std::string Write(const std::string& name, const std::string& bytes) const {
        const std::filesystem::path file = std::filesystem::path(path_) / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
        return file.string();
    }

private:
    std::string path_;
};
