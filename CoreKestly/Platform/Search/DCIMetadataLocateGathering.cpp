// The locate backend: the locate program's NUL-separated output, read from a non-blocking pipe
// on the main loop, each path checked by the candidate rule as the scan checks it.

#include "CoreKestly/Platform/Search/DCIChildProcessInternal.h"
#include "CoreKestly/Platform/Search/DCIFileNamePatternInternal.h"
#include "CoreKestly/Platform/Search/DCIMetadataGatheringInternal.h"
#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stop_token>

namespace {

// Longer output without a separator is no path; it is dropped rather than buffered.
constexpr size_t kLongestPath = 16 * 1024;
// Bytes read per turn of the loop, so a flood of output never holds the loop for long.
constexpr size_t kReadPerTurn = 256 * 1024;
// What is kept of the program's standard error for the failure's description.
constexpr size_t kLongestMessage = 1024;

class LocateGathering : public DCIMetadataGathering {
public:
    LocateGathering(std::unique_ptr<DCIChildProcess> child, std::string database, DCICandidateRule rule,
                    std::stop_token stop, Completion completion)
        : child_(std::move(child)), database_(std::move(database)), rule_(std::move(rule)),
          completion_(std::move(completion)) {
        // The searching thread's stop kills the program at once, whether or not this loop
        // still turns: the finish it causes here then comes to nothing.
        onStop_.emplace(stop, StopChild{child_.get()});
        auto& loop = DCIRunLoop::main();
        output_ = loop.addFileDescriptorSource(child_->outputDescriptor(), EPOLLIN, [this](uint32_t) { readOutput(); });
        errors_ = loop.addFileDescriptorSource(child_->errorDescriptor(), EPOLLIN, [this](uint32_t) { readErrors(); });
        // No exit descriptor: the program is done already, and its output still to be read.
        if (child_->exitDescriptor() >= 0)
            exit_ = loop.addFileDescriptorSource(child_->exitDescriptor(), EPOLLIN, [this](uint32_t) { noteExit(); });
        else
            exited_ = true;
    }

    bool isWatched() const { return output_ && errors_ && (exit_ || exited_); }

private:
    struct StopChild {
        DCIChildProcess* child;
        void operator()() const { child->stop(); }
    };

    void readOutput() {
        char buffer[64 * 1024];
        for (size_t total = 0; total < kReadPerTurn;) {
            const ssize_t count = read(child_->outputDescriptor(), buffer, sizeof buffer);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && errno == EAGAIN) return;
            if (count <= 0) {  // the end, or a failed pipe, which is as good as the end
                output_.reset();
                return finishIfDone();
            }
            total += static_cast<size_t>(count);
            if (!take(std::string_view(buffer, static_cast<size_t>(count)))) return finish();
        }
    }

    // Answers false once enough candidates are in.
    bool take(std::string_view bytes) {
        for (size_t end; (end = bytes.find('\0')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
            pending_.append(bytes.substr(0, end));
            if (pending_.size() <= kLongestPath && rule_.keeps(KestlyPath::lastComponent(pending_), pending_))
                paths_.push_back(pending_);
            pending_.clear();
            if (paths_.size() >= rule_.maximumResults) return false;
        }
        if (pending_.size() <= kLongestPath) pending_.append(bytes.substr(0, kLongestPath + 1 - pending_.size()));
        return true;
    }

    // Drained as it comes, so a talkative program never blocks on a full pipe; the start is kept.
    void readErrors() {
        char buffer[4096];
        const ssize_t count = read(child_->errorDescriptor(), buffer, sizeof buffer);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (count <= 0) {
            errors_.reset();
            return;
        }
        messages_.append(buffer, std::min(static_cast<size_t>(count), kLongestMessage - messages_.size()));
    }

    void noteExit() {
        exit_.reset();
        exited_ = true;
        finishIfDone();
    }

    // The output is read to its end even once the program has exited.
    void finishIfDone() {
        if (!output_ && exited_) finish();
    }

    // plocate exits with 1 both for no match and for errors; only an error says something.
    std::optional<DCIError> failure() {
        while (errors_ && messages_.size() < kLongestMessage) {
            const size_t before = messages_.size();
            readErrors();
            if (messages_.size() == before) break;
        }
        const auto status = child_->exitStatus();
        const bool succeeded = status && *status != DCIChildProcess::kLostStatus && WIFEXITED(*status) &&
                               WEXITSTATUS(*status) == 0;
        const bool exitedNormally = !status || *status == DCIChildProcess::kLostStatus ||
                                    (WIFEXITED(*status) && WEXITSTATUS(*status) <= 1);
        while (!messages_.empty() && (messages_.back() == '\n' || messages_.back() == ' ')) messages_.pop_back();
        if (succeeded || (exitedNormally && messages_.empty())) return std::nullopt;
        std::string description = "the locate database " + database_ + " could not be searched: ";
        if (!messages_.empty()) description += messages_;
        else if (WIFSIGNALED(*status)) description += "the locate program was killed by signal " + std::to_string(WTERMSIG(*status));
        else description += "the locate program exited with status " + std::to_string(WEXITSTATUS(*status));
        return DCIError(kDCIMetadataQueryErrorDomain, kDCIMetadataQueryLocateFailed, description);
    }

    // The last thing this object does: the completion may destroy it. A program cut short once
    // enough names are in has not failed.
    void finish() {
        const bool reachedMaximum = output_ != nullptr;
        std::optional<DCIError> failed = reachedMaximum ? std::nullopt : failure();
        output_.reset();
        errors_.reset();
        exit_.reset();
        onStop_.reset();  // waits for a stop running on another thread
        child_.reset();  // kills it if it still runs, and reaps it
        std::sort(paths_.begin(), paths_.end());
        auto completion = std::move(completion_);
        completion({std::move(paths_), std::move(failed), reachedMaximum});
    }

    std::unique_ptr<DCIChildProcess> child_;
    std::optional<std::stop_callback<StopChild>> onStop_;  // after the child it stops
    const std::string database_;
    const DCICandidateRule rule_;
    Completion completion_;
    std::string pending_;
    std::vector<std::string> paths_;
    std::string messages_;
    bool exited_ = false;
    // Declared after the child: removed from the loop before its descriptors close.
    std::unique_ptr<DCIRunLoopSource> output_;
    std::unique_ptr<DCIRunLoopSource> errors_;
    std::unique_ptr<DCIRunLoopSource> exit_;
};

}  // namespace

std::unique_ptr<DCIMetadataGathering> DCIStartLocateGathering(const std::string& program, const std::string& database,
                                                              const std::string& pattern, DCILocatePattern kind,
                                                              DCICandidateRule rule, std::stop_token stop,
                                                              DCIMetadataGathering::Completion completion) {
    const auto cannotSearch = [&](const std::string& why) {
        return DCIStartFinishedGathering(
            {{}, DCIError(kDCIMetadataQueryErrorDomain, kDCIMetadataQueryLocateFailed,
                          "the locate database " + database + " could not be searched: " + why)},
            std::move(completion));
    };
    // The program answers a missing database as it answers no match: tell them apart here.
    struct stat status;
    if (stat(database.c_str(), &status) != 0) return cannotSearch(std::strerror(errno));
    // No --limit: a glob without wildcards matches as a substring, and the program would count
    // those hits (a808.mp3 for 808.mp3) against the limit before the whole-name check drops
    // them. Reading stops, and the program is killed, once enough whole names are in.
    std::vector<std::string> arguments = {program, "--database", database, "--basename", "--null"};
    if (kind == DCILocatePattern::globIgnoringCase) arguments.push_back("--ignore-case");
    if (kind == DCILocatePattern::regex) arguments.push_back("--regex");
    arguments.insert(arguments.end(), {"--", pattern});
    // A UTF-8 locale of its own makes a set's member one character and folds case beyond ASCII.
    const std::vector<std::string> environment = {"LC_ALL=C.UTF-8", "PATH=/usr/bin:/bin"};
    auto child = DCIChildProcess::spawn(program, arguments, environment);
    if (!child) return cannotSearch("cannot run " + program + ": " + std::strerror(errno));
    auto gathering = std::make_unique<LocateGathering>(std::move(child), database, std::move(rule), std::move(stop),
                                                       completion);
    if (!gathering->isWatched()) return cannotSearch("its output cannot be watched");
    return gathering;
}
