#pragma once

// Everything a host of CoreKestly uses, in one include. The build fails when an installed
// header is missing here.

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/CoreKestlyExport.h"
#include "CoreKestly/KestlyUtilities.h"

#include "CoreKestly/Platform/RunLoop/DCIAtomicSharedPtr.h"
#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include "CoreKestly/Platform/Values/DCIData.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIError.h"
#include "CoreKestly/Platform/Values/DCIFormat.h"
#include "CoreKestly/Platform/Values/DCILocalizedString.h"
#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/Platform/Values/DCIValue.h"

#include "CoreKestly/Platform/Files/DCIFSEventStream.h"
#include "CoreKestly/Platform/Files/DCIFileOperations.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include "CoreKestly/Platform/Network/DCIURLConnection.h"
#include "CoreKestly/Platform/Network/DCIURLRequest.h"

#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"

#include "CoreKestly/DCLog/DCLogger.h"

#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"

#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/Actions/DCIActionQueuePlace.h"

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIEntryDictionary.h"
#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/FileSystem/DCIFileQueries.h"
#include "CoreKestly/FileSystem/DCIFileStamp.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCIPathIdentity.h"
#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"

#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/Downloads/DCIDownloader.h"

#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "CoreKestly/SampleFinder/DCIAudioFile.h"
#include "CoreKestly/SampleFinder/DCISampleFinder.h"
