#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <cstdint>
#include <string>

/// Reads the length of an audio file, for confirming a sample by its duration.
class KESTLY_EXPORT DCIAudioFile {
public:
    /// Reads the number of sample frames and the whole sample rate (frames per second, any
    /// fraction dropped) of the audio file at `path`: WAV, AIFF, FLAC, Ogg, and MP3 where the
    /// installed libsndfile reads it. Answers true when both were read; otherwise false,
    /// leaving both outputs untouched. Anything but a regular file is refused unopened, so a
    /// FIFO never blocks. Any thread.
    static bool numberOfSamples(uint64_t& numberOfSamples, uint64_t& sampleRate, const std::string& forAudioFileAtPath);
};
