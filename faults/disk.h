#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace faults {

/// What a disk holds below a folder: the content of each file by its path from there. A value.
using Image = std::map<std::string, std::string>;

/// One change to a folder, as the tested program asked for it. A value.
struct Change {
    enum class Kind { makeFolder, create, write, syncFile, rename, remove, syncFolder };

    Kind kind{};
    std::string path;  // from the recorded folder on; of `write` and `syncFile` the one it was created under
    std::string to;    // of `rename`
    std::string content;  // of `write`
    int file = 0;         // what `create`, `write` and `syncFile` are about: tells files of one path apart
};

/// Runs `act`, and returns what it changed below `folder`, in order. The calls are taken down on their way to the C
/// library: the program is linked with what faults/CMakeLists.txt wraps.
std::vector<Change> record(const std::string& folder, const std::function<void()>& act);

/// A disk that loses power: what was synced is on it, and of all else any part.
///
/// A file's content is safe once the file was synced; before that, the disk may have none of it, the half, all, or
/// zeros in its place. A name is safe once its folder was synced; before that, each change of a name has reached the
/// disk or not, whatever happened to the others. What lies in a folder that was lost is lost.
class Disk {
public:
    /// A disk with these files, all of them synced, and the folders that they lie in.
    explicit Disk(const Image& before);

    /// Makes one change.
    void make(const Change& change);
    /// Each state in which a power cut at this moment may leave the disk.
    std::set<Image> afterPowerCut() const;

private:
    /// A change of names that has not been synced: of `path`, and for a rename of `to`, to what `file` is.
    struct Pending {
        std::string gone;  // a path that it removes; empty when it removes none
        std::string come;  // a path that it makes; empty when it makes none
        int file = 0;      // the file there; `aFolder` when it is a folder
    };
    struct Content {
        std::string synced;
        std::string whole;
    };
    using Names = std::map<std::string, int>;

    static constexpr int aFolder = -1;

    int fileAt(const std::string& path) const;
    void add(const Pending& change);
    void addContents(const Names& names, std::set<Image>& images) const;

    Names safe;                    // the names on the disk
    Names current;                 // the names as the program sees them
    std::vector<Pending> pending;  // in order
    std::map<int, Content> contents;
};

}  // namespace faults
