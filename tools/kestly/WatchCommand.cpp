// kestly watch: starts the file manager on a folder and prints every event it delivers, one
// line each as it arrives on the main thread; standard input takes file operations.

#include "KestlyCommand.h"

#include "Base64.h"
#include "CachePaths.h"
#include "HashingProgress.h"
#include "ShellWords.h"
#include "TerminalText.h"

#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/FileManager/DCIFileManager.h"
#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

struct WatchOptions {
    std::string root;
    DCIFileKinds kinds;
    CachePaths caches;
    bool json = false;
    bool fullPasses = false;
};

// Longer command lines are refused, so that endless input without a newline stays bounded.
constexpr size_t kLongestCommand = 64 * 1024;

const char* eventName(uint64_t type) {
    static constexpr const char* kNames[] = {
        nullptr,       "FileManagerReady", "FileManagerStopped", "FileAdded",         "FolderAdded",
        "FileRemoved", "FolderRemoved",    "FileMoved",          "FolderMoved",       "FileModified",
        "RootFolderRemoved", "ActionStatusChanged"};
    return type < std::size(kNames) ? kNames[type] : nullptr;
}

const char* operationName(uint64_t type) {
    switch (type) {
        case DCIActionTypeMoveFile: return "move";
        case DCIActionTypeCopyFile: return "copy";
        case DCIActionTypeCreateDirectory: return "mkdir";
        default: return "action";
    }
}

std::string objectPath(const DCIEvent& event, std::string_view key) {
    const auto value = event.contextValue(key);
    const auto object = value ? value->object() : nullptr;
    return object ? object->description() : std::string();
}

std::string contextText(const DCIAction& action, std::string_view key) {
    const auto value = action.contextObjectForKey(key);
    return value && value->string() ? *value->string() : std::string();
}

// The status an action-status event announces; the action itself may have moved on since.
int64_t announcedStatus(const DCIEvent& event) {
    const auto value = event.contextValue(kDCIActionStatusKey);
    return value ? value->int64Value().value_or(0) : 0;
}

Json textOrNull(const std::optional<std::string>& text) { return text ? Json(*text) : Json(nullptr); }

// Sets `key` to `path`, and when the path is not UTF-8, which JSON text cannot carry (two
// such names would print alike), "<key>Bytes" to its exact bytes in base64.
void setPath(Json& line, const std::string& key, const std::string& path) {
    line[key] = path;
    if (!isUTF8(path)) line[key + "Bytes"] = base64Encoded(path);
}

// Prints what the file manager says and ends the main loop after its stopped event.
class EventPrinter : public DCIEventListener {
public:
    EventPrinter(bool json, std::shared_ptr<DCIFileManager> manager, std::function<void(std::shared_ptr<DCIAction>)> actionEnded)
        : json_(json), manager_(std::move(manager)), actionEnded_(std::move(actionEnded)) {}

    int exitStatus() const { return outputFailed_ ? 1 : rootRemoved_ ? 3 : 0; }
    bool sawReady() const { return sawReady_; }

    void handleEvent(const std::shared_ptr<DCIEvent>& event) override {
        if (event->category() != DCIEventCategoryCommon || !eventName(event->type())) return;
        if (event->type() == DCIEventTypeRootFolderRemoved) rootRemoved_ = true;
        if (event->type() == DCIEventTypeFileManagerReady) sawReady_ = true;
        const std::string line =
            json_ ? jsonLine(*event).dump(-1, ' ', false, Json::error_handler_t::replace) : humanLine(*event);
        // Nobody reads what follows a failed write (a full disk, a closed pipe): stop watching.
        if ((std::printf("%s\n", line.c_str()) < 0 || std::fflush(stdout) != 0) && !outputFailed_) {
            outputFailed_ = true;
            manager_->stop();
        }
        if (event->type() == DCIEventTypeFileManagerStopped) DCIRunLoop::main().stop();
        const int64_t status = announcedStatus(*event);
        const bool ended = status == DCIActionStatusCompleted || status == DCIActionStatusFailed ||
                           status == DCIActionStatusCanceled;
        if (event->type() == DCIEventTypeActionStatusChanged && ended && event->action()) actionEnded_(event->action());
    }

private:
    // Paths are quoted where they would be ambiguous (see shellEscapedPath), so every line reads back.
    static std::string humanLine(const DCIEvent& event) {
        const auto shown = [&](std::string_view key) { return shellEscapedPath(objectPath(event, key)); };
        const std::string path = shown(kDCIFileObject), folder = shown(kDCIFolderObject);
        switch (event.type()) {
            case DCIEventTypeFileManagerReady: return "ready";
            case DCIEventTypeFileManagerStopped: return "stopped";
            case DCIEventTypeRootFolderRemoved: return "root removed";
            case DCIEventTypeFileAdded: return "added file " + path;
            case DCIEventTypeFolderAdded: return "added folder " + folder;
            case DCIEventTypeFileRemoved: return "removed file " + shown(kDCIOldFileObject);
            case DCIEventTypeFolderRemoved: return "removed folder " + shown(kDCIOldFolderObject);
            case DCIEventTypeFileMoved: return "moved file " + shown(kDCIOldFileObject) + " -> " + path;
            case DCIEventTypeFolderMoved: return "moved folder " + shown(kDCIOldFolderObject) + " -> " + folder;
            case DCIEventTypeFileModified: return "modified " + path;
        }
        const auto action = event.action();
        if (!action) return "action";
        std::string line = std::string("action ") + operationName(action->type()) + " " +
                           std::string(DCIActionStatusText(announcedStatus(event))) + " ";
        const auto shownText = [&](std::string_view key) { return shellEscapedPath(contextText(*action, key)); };
        if (action->type() == DCIActionTypeCreateDirectory) line += shownText(kDCIFileManagerCreatePath);
        else line += shownText(kDCIFileManagerMoveFrom) + " -> " + shownText(kDCIFileManagerMoveTo);
        const auto error = action->contextObjectForKey(kDCIError);
        if (announcedStatus(event) == DCIActionStatusFailed && error && error->error()) {
            line += ": " + terminalText(error->error()->localizedDescription());
        }
        return line;
    }

    static Json jsonLine(const DCIEvent& event) {
        Json line{{"event", eventName(event.type())}, {"type", event.type()}};
        const bool fileEvent = event.type() == DCIEventTypeFileAdded || event.type() == DCIEventTypeFileRemoved ||
                               event.type() == DCIEventTypeFileMoved || event.type() == DCIEventTypeFileModified;
        const bool folderEvent = event.type() == DCIEventTypeFolderAdded || event.type() == DCIEventTypeFolderRemoved ||
                                 event.type() == DCIEventTypeFolderMoved;
        if (fileEvent || folderEvent) {
            const auto newKey = fileEvent ? kDCIFileObject : kDCIFolderObject;
            const auto oldKey = fileEvent ? kDCIOldFileObject : kDCIOldFolderObject;
            const auto current = event.contextValue(newKey) ? newKey : oldKey;
            setPath(line, "path", objectPath(event, current));
            if (event.type() == DCIEventTypeFileMoved || event.type() == DCIEventTypeFolderMoved) {
                setPath(line, "oldPath", objectPath(event, oldKey));
            }
            if (fileEvent) {
                const auto value = event.contextValue(current);
                const auto file = value ? value->object<DCIFileObject>() : nullptr;
                line["sha256"] = textOrNull(file ? file->fileHash() : std::nullopt);
            }
        }
        if (const auto action = event.action(); action && event.type() == DCIEventTypeActionStatusChanged) {
            line["op"] = operationName(action->type());
            if (action->type() == DCIActionTypeCreateDirectory) {
                setPath(line, "path", contextText(*action, kDCIFileManagerCreatePath));
            } else {
                setPath(line, "from", contextText(*action, kDCIFileManagerMoveFrom));
                setPath(line, "to", contextText(*action, kDCIFileManagerMoveTo));
            }
            line["status"] = DCIActionStatusText(announcedStatus(event));
            line["statusCode"] = announcedStatus(event);
            const auto error = action->contextObjectForKey(kDCIError);
            if (announcedStatus(event) == DCIActionStatusFailed && error && error->error()) {
                line["error"] = error->error()->localizedDescription();
            }
        }
        return line;
    }

    const bool json_;
    const std::shared_ptr<DCIFileManager> manager_;
    const std::function<void(std::shared_ptr<DCIAction>)> actionEnded_;
    bool rootRemoved_ = false;
    bool sawReady_ = false;
    bool outputFailed_ = false;
};

// A command of standard input: an operation and the absolute paths it names.
struct Command {
    std::string op;
    std::vector<std::string> paths;  // from and to, or the one path
};

// One line as the words or the JSON object of a command; the reason when it is none.
std::variant<Command, std::string> parseCommand(const std::string& line) {
    Command command;
    if (line.starts_with('{')) {
        const Json object = Json::parse(line, nullptr, false);
        if (!object.is_object() || !object.contains("op") || !object["op"].is_string()) return "not a command object";
        command.op = object["op"];
        const bool transfer = command.op == "move" || command.op == "copy";
        const std::vector<std::string> keys = transfer ? std::vector<std::string>{"from", "to"}
                                              : command.op == "mkdir" ? std::vector<std::string>{"path"}
                                                                      : std::vector<std::string>{};
        // Each path is taken by its key, as text or as the base64 of its bytes, and only the keys
        // of the operation are allowed, so that a misnamed key can never turn a move around.
        if (object.size() != keys.size() + 1) {
            return "expected the keys op and " + std::string(transfer ? "from, to" : "path") + ", each as text or as <key>Bytes";
        }
        for (const std::string& key : keys) {
            const bool bytes = object.contains(key + "Bytes");
            const auto value = object.find(bytes ? key + "Bytes" : key);
            if (value == object.end() || !value->is_string()) return "expected a string under " + key + " or " + key + "Bytes";
            const auto path = bytes ? base64Decoded(value->get<std::string>()) : value->get<std::string>();
            if (!path) return "expected base64 under " + key + "Bytes";
            command.paths.push_back(*path);
        }
    } else {
        const auto words = shellWords(line);
        if (!words) return "a quote or an escape is left open";
        if (!words->empty()) {
            command.op = words->front();
            command.paths.assign(words->begin() + 1, words->end());
        }
    }
    for (auto& path : command.paths) {
        // The system would read the path only up to the NUL: "keep.wav\0.bak" is keep.wav.
        if (path.find('\0') != std::string::npos) return "a path holds a NUL character";
        const auto absolute = absoluteStandardPath(path);
        if (!absolute) return "the working folder is gone";
        path = *absolute;
    }
    const size_t count = command.paths.size();
    const bool fits = (command.op == "stop" && count == 0) || (command.op == "mkdir" && count == 1) ||
                      ((command.op == "move" || command.op == "copy") && count == 2);
    if (!fits) return "expected move FROM TO, copy FROM TO, mkdir PATH or stop";
    return command;
}

// Carries out the commands of standard input in the order given. The file manager hands out
// actions of equal priority newest first, so each is queued only once the one before has
// ended; `stop` waits its turn too. Main thread only.
class CommandRunner {
public:
    explicit CommandRunner(std::shared_ptr<DCIFileManager> manager) : manager_(std::move(manager)) {}

    void add(const std::string& line) {
        auto parsed = parseCommand(line);
        if (const auto* problem = std::get_if<std::string>(&parsed)) {
            std::fprintf(stderr, "kestly: %s: %s\n", terminalText(line).c_str(), problem->c_str());
            return;
        }
        waiting_.push_back(std::get<Command>(std::move(parsed)));
        runNext();
    }

    void actionEnded(const std::shared_ptr<DCIAction>& action) {
        if (action != running_) return;
        running_.reset();
        runNext();
    }

private:
    void runNext() {
        while (!running_ && !waiting_.empty()) {
            const Command command = std::move(waiting_.front());
            waiting_.pop_front();
            const auto& paths = command.paths;
            if (command.op == "stop") manager_->stop();
            else if (command.op == "move") running_ = manager_->queueMoveItemAtPath(paths[0], paths[1]);
            else if (command.op == "copy") running_ = manager_->queueCopyItemAtPath(paths[0], paths[1]);
            else running_ = manager_->queueCreateDirectoryAtPath(paths[0]);
        }
    }

    const std::shared_ptr<DCIFileManager> manager_;
    std::deque<Command> waiting_;
    std::shared_ptr<DCIAction> running_;
};

// Reads commands on a thread of its own, so that a slow or endless standard input never holds
// up the main loop; each line is handed to the main thread. Ends with the input. The thread
// cannot be joined (a terminal's input never ends), so it holds the runner weakly: were it the
// last owner, it would destroy the file manager while the process exits.
void readCommands(const std::weak_ptr<CommandRunner>& runner) {
    std::string pending;
    bool discarding = false;  // the rest of a line that was too long
    char buffer[4096];
    for (ssize_t length; (length = read(STDIN_FILENO, buffer, sizeof buffer)) != 0;) {
        if (length < 0) {
            if (errno == EINTR) continue;
            return;
        }
        for (ssize_t i = 0; i < length; ++i) {
            if (buffer[i] != '\n') {
                if (!discarding) pending += buffer[i];
                if (pending.size() > kLongestCommand) {
                    std::fprintf(stderr, "kestly: command longer than %zu bytes ignored\n", kLongestCommand);
                    pending.clear();
                    discarding = true;
                }
                continue;
            }
            if (!discarding && !pending.empty()) {
                DCIRunLoop::main().performAsync([runner, line = std::move(pending)] {
                    if (const auto live = runner.lock()) live->add(line);
                });
            }
            pending.clear();
            discarding = false;
        }
    }
}

// While a first scan takes more than a second, shows how far its hashing has come, on one line
// that goes once the manager is ready.
std::unique_ptr<DCIRunLoopSource> showFirstScanProgress(const DCIFileManager& manager, const EventPrinter& printer) {
    if (!showsProgressAndNotices()) return nullptr;
    const auto start = std::chrono::steady_clock::now();
    auto shown = std::make_shared<bool>(false);
    return DCIRunLoop::main().addTimer(std::chrono::milliseconds(250), true, [&manager, &printer, start, shown] {
        const auto progress = manager.firstScanProgress();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (printer.sawReady() || progress.files == 0) {
            if (*shown) std::fputs("\r\033[K", stderr);
            *shown = false;
            return;
        }
        if (elapsed < std::chrono::seconds(1)) return;
        *shown = true;
        std::fprintf(stderr, "\rkestly: %s\033[K",
                     hashingProgress(progress.filesHashed, progress.files, progress.bytesHashed, progress.bytes, elapsed)
                         .c_str());
    });
}

// Why `root` cannot be watched, or nothing when it can. The library would watch a missing
// folder as one removed at once, and a file or a folder it cannot read as an empty folder.
std::optional<std::string> whyUnwatchable(const std::string& root) {
    const DCIFileDescriptor folder(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) return std::nullopt;
    if (errno == ENOENT) return "no such folder";
    if (errno == ENOTDIR) return "not a folder";
    return std::string("cannot read the folder: ") + std::strerror(errno);
}

int watch(const WatchOptions& options) {
    // SIGINT and SIGTERM arrive through a descriptor on the main loop, in every thread made
    // from here on too.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    DCIFileDescriptor signals(signalfd(-1, &stopSignals, SFD_NONBLOCK | SFD_CLOEXEC));

    const auto root = absoluteStandardPath(options.root);
    if (!root) {
        std::fprintf(stderr, "kestly: %s: the working folder is gone\n", options.root.c_str());
        return 2;
    }
    if (const auto problem = whyUnwatchable(*root)) {
        std::fprintf(stderr, "kestly: %s: %s\n", terminalText(options.root).c_str(), problem->c_str());
        return 3;
    }
    CachePaths caches = options.caches;
    if (const int status = completeCachePaths(caches); status != 0) return status;

    const auto manager = DCIFileManager::init();
    manager->setFullPasses(options.fullPasses);
    DCIFileKinds kinds = options.kinds;
    if (kinds.primaryExtensions.empty() && kinds.primaryFilenames.empty() && kinds.secondaryExtensions.empty()) {
        kinds = {{"als"}, {}, {"wav", "aif", "aiff", "flac", "mp3", "ogg", "m4a"}};
    }
    for (const auto& extension : kinds.primaryExtensions) manager->addPrimaryFileExtension(extension);
    for (const auto& name : kinds.primaryFilenames) manager->addPrimaryFilename(name);
    for (const auto& extension : kinds.secondaryExtensions) manager->addSecondaryFileExtension(extension);

    const auto runner = std::make_shared<CommandRunner>(manager);
    const auto printer = std::make_shared<EventPrinter>(
        options.json, manager, [runner](const std::shared_ptr<DCIAction>& action) { runner->actionEnded(action); });
    DCIEventManager::addListener(printer);
    int signalsSeen = 0;
    const auto signalSource = DCIRunLoop::main().addFileDescriptorSource(signals.get(), EPOLLIN, [&](uint32_t) {
        signalfd_siginfo info;
        while (read(signals.get(), &info, sizeof info) == sizeof info) {
            // A second signal leaves at once: the caches' writes are transactions, safe to cut.
            if (++signalsSeen > 1) _exit(128 + static_cast<int>(info.ssi_signo));
            manager->stop();
        }
    });
    if (showsProgressAndNotices()) {
        std::fprintf(stderr, "kestly: watching %s; building and hashing its tree first (Ctrl-C stops)\n",
                     terminalText(*root).c_str());
    }
    manager->startWatchingRootFolder(*root, caches.primary, caches.secondary, nullptr);
    std::thread(readCommands, std::weak_ptr<CommandRunner>(runner)).detach();
    const auto progress = showFirstScanProgress(*manager, *printer);

    DCIRunLoop::main().run();
    DCIEventManager::removeListener(printer);
    manager->waitUntilStopped();
    return printer->exitStatus();
}

}  // namespace

KestlyCommand addWatchCommand(CLI::App& app) {
    auto options = std::make_shared<WatchOptions>();
    CLI::App* command = app.add_subcommand(
        "watch", "Watch ROOT and print each change as it is reported; standard input takes file operations "
                 "(move FROM TO, copy FROM TO, mkdir PATH, stop, paths quoted as a shell quotes words; or the same "
                 "as JSON objects, where fromBytes, toBytes and pathBytes give a path's bytes in base64); exit status 0 "
                 "after a stop, 3 when ROOT is missing, is not a folder, cannot be read or is removed, 2 for a usage error");
    command->add_option("ROOT", options->root, "The folder to watch")->required();
    command->add_option("--primary-ext", options->kinds.primaryExtensions, "Extension of primary files [als]")
        ->allow_extra_args(false);
    command->add_option("--primary-name", options->kinds.primaryFilenames, "Whole name of primary files")
        ->allow_extra_args(false);
    command->add_option("--secondary-ext", options->kinds.secondaryExtensions,
                        "Extension of secondary files [wav aif aiff flac mp3 ogg m4a]")
        ->allow_extra_args(false);
    command->add_option("--primary-cache", options->caches.primary,
                        "Cache file of primary files [$XDG_CACHE_HOME/kestly/primary.sqlite]");
    command->add_option("--secondary-cache", options->caches.secondary,
                        "Cache file of secondary files [$XDG_CACHE_HOME/kestly/secondary.sqlite]");
    command->add_flag("--json", options->json, "Print one JSON object per event");
    command->add_flag("--full-passes", options->fullPasses,
                      "Look at the whole folder after each change, not only at the folders that changed (for debugging)");
    return {command, [options] { return watch(*options); }};
}
