#pragma once

#include <string>
#include <string_view>

namespace tk::testing {

/// An empty folder of its own for one test, removed with all that is in it at the end.
class Folder {
public:
    Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder();

    /// The path of a file in it.
    std::string file(const std::string& name) const { return path + "/" + name; }
    /// Writes a file as it stands, and reads one; a file that is not there reads as empty.
    void write(const std::string& name, std::string_view content) const;
    std::string read(const std::string& name) const;
    /// True when there is something under that name.
    bool has(const std::string& name) const;

    std::string path;
};

}  // namespace tk::testing
