#include "faults/disk.h"

#include <algorithm>

namespace faults {

namespace {

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

}  // namespace

// Files of before the recording have negative numbers, which no recorded file has.
Disk::Disk(const Image& before) {
    int number = aFolder;
    for (const auto& [path, content] : before) {
        if (const std::string folder = folderOf(path); !folder.empty()) safe[folder] = aFolder;
        safe[path] = --number;
        contents[number] = {content, content};
    }
    current = safe;
}

int Disk::fileAt(const std::string& path) const {
    const auto found = current.find(path);
    return found == current.end() ? 0 : found->second;
}

void Disk::add(const Pending& change) {
    current.erase(change.gone);
    if (!change.come.empty()) current[change.come] = change.file;
    pending.push_back(change);
}

void Disk::make(const Change& change) {
    const std::string& path = change.path;
    switch (change.kind) {
        case Change::Kind::makeFolder:
            return add({"", path, aFolder});
        case Change::Kind::create:
            return add({"", path, change.file});
        case Change::Kind::write:
            contents[change.file].whole += change.content;
            return;
        case Change::Kind::syncFile:
            contents[change.file].synced = contents[change.file].whole;
            return;
        case Change::Kind::rename:
            return add({path, change.to, fileAt(path)});
        case Change::Kind::remove:
            return add({path, "", 0});
        case Change::Kind::syncFolder:
            break;
    }
    const auto isIn = [&path](const std::string& name) { return !name.empty() && folderOf(name) == path; };
    std::erase_if(pending, [&](const Pending& one) {
        if (!isIn(one.gone) && !isIn(one.come)) return false;
        safe.erase(one.gone);
        if (!one.come.empty()) safe[one.come] = one.file;
        return true;
    });
}

std::set<Image> Disk::afterPowerCut() const {
    std::set<Image> images;
    for (std::size_t reached = 0; reached < std::size_t{1} << pending.size(); ++reached) {
        Names names = safe;
        for (std::size_t index = 0; index < pending.size(); ++index) {
            if (!(reached >> index & 1)) continue;
            names.erase(pending[index].gone);
            if (!pending[index].come.empty()) names[pending[index].come] = pending[index].file;
        }
        addContents(names, images);
    }
    return images;
}

/// Adds an image for each of the contents that the files of these names may have.
void Disk::addContents(const Names& names, std::set<Image>& images) const {
    std::set<Image> found{{}};
    for (const auto& [path, file] : names) {
        const std::string folder = folderOf(path);
        if (file == aFolder || (!folder.empty() && !names.contains(folder))) continue;
        const auto known = contents.find(file);
        const Content content = known == contents.end() ? Content() : known->second;
        std::set<std::string> fates{content.synced};
        if (content.whole != content.synced)
            fates.insert({content.whole, content.whole.substr(0, content.whole.size() / 2),
                          std::string(content.whole.size(), '\0')});
        std::set<Image> more;
        for (const Image& image : found)
            for (const std::string& fate : fates) {
                Image one = image;
                one[path] = fate;
                more.insert(one);
            }
        found = std::move(more);
    }
    images.merge(found);
}

}  // namespace faults
