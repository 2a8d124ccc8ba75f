#include "tk/testing/folder.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tk::testing {

Folder::Folder() {
    const char* parent = ::getenv("TMPDIR");
    path = std::string(parent ? parent : "/tmp") + "/tktest.XXXXXX";
    if (!::mkdtemp(path.data())) ::abort();
}

Folder::~Folder() {
    std::error_code ignored;  // a test may remove its folder itself
    std::filesystem::remove_all(path, ignored);
}

void Folder::write(const std::string& name, std::string_view content) const {
    std::ofstream(file(name), std::ios::binary | std::ios::trunc) << content;
}

std::string Folder::read(const std::string& name) const {
    std::ostringstream content;
    content << std::ifstream(file(name), std::ios::binary).rdbuf();
    return content.str();
}

bool Folder::has(const std::string& name) const {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(file(name), ignored));
}

}  // namespace tk::testing
