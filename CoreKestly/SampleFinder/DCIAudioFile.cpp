#include "CoreKestly/SampleFinder/DCIAudioFile.h"

#include <sndfile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool DCIAudioFile::numberOfSamples(uint64_t& numberOfSamples, uint64_t& sampleRate,
                                   const std::string& forAudioFileAtPath) {
    const int fd = open(forAudioFileAtPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(fd);
        return false;
    }
    SF_INFO info{};
    SNDFILE* file = sf_open_fd(fd, SFM_READ, &info, SF_FALSE);
    if (file) sf_close(file);
    close(fd);
    if (!file) return false;
    // libsndfile answers SF_COUNT_MAX for a stream whose length it cannot tell.
    if (info.frames < 0 || info.frames == SF_COUNT_MAX || info.samplerate <= 0) return false;
    numberOfSamples = static_cast<uint64_t>(info.frames);
    sampleRate = static_cast<uint64_t>(info.samplerate);
    return true;
}
