#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestly-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    // Tests may leave folders without write permission behind; give it back first.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        if (!it->is_symlink(ignored))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ignored);
    }
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::writeFile(const std::string& relative, const std::string& contents) const {
    const auto file = path_ / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << contents;
    return file.string();
}

std::string TemporaryDirectory::makeFolder(const std::string& relative) const {
    const auto folder = path_ / relative;
    std::filesystem::create_directories(folder);
    return folder.string();
}

ScopedEnvironment::ScopedEnvironment(const char* name, const char* value) : name_(name) {
    if (const char* previous = std::getenv(name)) previous_ = previous;
    if (value) setenv(name, value, 1);
    else unsetenv(name);
}

ScopedEnvironment::~ScopedEnvironment() {
    if (previous_) setenv(name_.c_str(), previous_->c_str(), 1);
    else unsetenv(name_.c_str());
}

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

void setModificationTime(const std::string& path, long long seconds, long nanoseconds) {
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}
