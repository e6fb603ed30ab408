// The test programs' main: each process gets a temporary directory of its own as TMPDIR, so
// that parallel test processes never rotate or read each other's log files, and everything
// a test leaves in it is removed at the end.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    std::string folder = (std::filesystem::temp_directory_path() / "kestly-tests-XXXXXX").string();
    if (!mkdtemp(folder.data())) return 2;
    setenv("TMPDIR", folder.c_str(), 1);
    const int status = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return status;
}
