#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>

/// A fresh folder under the system's temporary directory, removed with everything in it
/// when the object goes away.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// The absolute path of `relative` inside the folder, as a string.
    std::string operator/(const std::string& relative) const { return (path_ / relative).string(); }

    /// Writes `contents` to `relative`, making the folders on the way.
    std::string writeFile(const std::string& relative, const std::string& contents) const;
    /// Writes `contents` to each of `relatives`.
    void writeFiles(std::initializer_list<std::string> relatives, const std::string& contents = "abc") const {
        for (const auto& relative : relatives) writeFile(relative, contents);
    }
    /// Makes the folder `relative` and its parents.
    std::string makeFolder(const std::string& relative) const;

private:
    std::filesystem::path path_;
};

/// Sets an environment variable, or unsets it for nullptr, for the object's lifetime.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

/// The whole content of a file, or "" when it cannot be read.
std::string readWholeFile(const std::string& path);

/// Sets the modification time of `path`, following a link; fails the test when it cannot.
void setModificationTime(const std::string& path, long long seconds, long nanoseconds = 0);

/// The SHA-256 of "abc", as the library writes digests.
inline constexpr const char* kSHA256OfABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
