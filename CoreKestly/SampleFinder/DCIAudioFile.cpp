#include "CoreKestly/SampleFinder/DCIAudioFile.h"

#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"

#include <sndfile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

bool DCIAudioFile::numberOfSamples(uint64_t& numberOfSamples, uint64_t& sampleRate,
                                   const std::string& forAudioFileAtPath) {
    const DCIFileDescriptor file(open(forAudioFileAtPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    SF_INFO info{};
    {
        // libsndfile writes the reason for a failed open to one buffer shared by every thread,
        // and the sample finder reads lengths on two at once (the main loop and a scan's).
        static std::mutex libraryErrorBuffer;
        std::lock_guard lock(libraryErrorBuffer);
        SNDFILE* sound = sf_open_fd(file.get(), SFM_READ, &info, SF_FALSE);  // the descriptor stays ours
        if (!sound) return false;
        sf_close(sound);
    }
    // libsndfile answers SF_COUNT_MAX for a stream whose length it cannot tell.
    if (info.frames < 0 || info.frames == SF_COUNT_MAX || info.samplerate <= 0) return false;
    numberOfSamples = static_cast<uint64_t>(info.frames);
    sampleRate = static_cast<uint64_t>(info.samplerate);
    return true;
}
