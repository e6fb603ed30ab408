// Built with every build and never run: a host that includes only the umbrella header
// reaches every public class, function set and alias, or this fails to compile.

#include <CoreKestly/CoreKestly.h>

template <class... Classes>
constexpr bool complete = ((sizeof(Classes) > 0) && ...);

static_assert(complete<DCIAction, DCIActionQueue, DCIActionQueuePlace, DCIAtomicSharedPtr<int>, DCIAudioFile,
                       DCICachedFileQueries, DCIData, DCIDate, DCIDictionary, DCIDownloader, DCIError, DCIEvent,
                       DCIEventListener, DCIEventManager, DCIFSEventBatch, DCIFSEventStream, DCIFileDescriptor,
                       DCIFileIdentifiers, DCIFileIdentity, DCIFileKinds, DCIFileManager, DCIFileObject,
                       DCIFileQueries, DCIFileStamp, DCIFolderObject, DCIFolderRelisting, DCIFormatArgument,
                       DCIManifestV2ProjectFileItem, DCIManifestV2ProjectItem, DCIMetadataGathered, DCIMetadataQuery,
                       DCIMetadataQueryOptions, DCIMetadataQuerySettings, DCIObject, DCIPausedObservation, DCIRunLoop,
                       DCIRunLoopSource, DCISHACache, DCISHACacheRecord, DCISampleFinder, DCIURLConnection,
                       DCIURLConnectionDelegate, DCIURLRequest, DCIURLRequestFields, DCIURLResponse, DCIValue, DCLogger,
                       DCIActionCategory, DCIActionStatus, DCIActionType, DCIEventCategory, DCIEventType,
                       DCIMetadataQueryBackend, DCIMetadataQueryReach, DCIURLErrorCode, DCIKestlyDAW,
                       DCILocalizedStringTable, DCLogLevel, DCLogSink>);

int main() {
    // The free functions a host calls, each named once.
    (void)&KestlyPath::standardize;
    (void)&DCIFileOperations::moveItem;
    (void)&KSTSha256ForFileAtPath;
    (void)&DCILocalizedString;
    (void)&RemoveEmptyFoldersUnderPath;
    (void)&DCLogSetSink;
}
