#pragma once

// Everything a host of CoreKestly uses, in one include.

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/KestlyUtilities.h"

#include "CoreKestly/Platform/DCIData.h"
#include "CoreKestly/Platform/DCIDate.h"
#include "CoreKestly/Platform/DCIError.h"
#include "CoreKestly/Platform/DCIFormat.h"
#include "CoreKestly/Platform/DCIMetadataQuery.h"
#include "CoreKestly/Platform/DCILocalizedString.h"
#include "CoreKestly/Platform/DCIObject.h"
#include "CoreKestly/Platform/DCIRunLoop.h"
#include "CoreKestly/Platform/DCIURLConnection.h"
#include "CoreKestly/Platform/DCIURLRequest.h"
#include "CoreKestly/Platform/DCIValue.h"
#include "CoreKestly/Platform/KestlyPath.h"

#include "CoreKestly/DCLog/DCLogger.h"

#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"

#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/Actions/DCIActionQueue.h"

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/FileSystem/DCIFileQueries.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"

#include "CoreKestly/Downloads/DCIDownloader.h"

#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "CoreKestly/SampleFinder/DCIAudioFile.h"
#include "CoreKestly/SampleFinder/DCISampleFinder.h"
