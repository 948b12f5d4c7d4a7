#pragma once

/// \file
/// The public interface of libKRVQTProcessClient. An application needs to include only this header.

/// \namespace krv
/// The library's namespace.

#include <KRVQTProcessClient/Client/KRVQTProcessOperations.h>
#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Discovery/PortNumbering.h>
#include <KRVQTProcessClient/Discovery/ServerNaming.h>
#include <KRVQTProcessClient/Discovery/ServicePort.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Logging/Logging.h>
#include <KRVQTProcessClient/Logging/LoggingDefaults.h>
#include <KRVQTProcessClient/Monitoring/KRVNSTimer.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>
#include <KRVQTProcessClient/Operations/EncodingParameters.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>
#include <KRVQTProcessClient/Operations/OperationKeys.h>
#include <KRVQTProcessClient/Operations/OperationProgress.h>
#include <KRVQTProcessClient/Operations/QuicktimeServerStatusCodes.h>
#include <KRVQTProcessClient/Operations/VideoConversion.h>
#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/ClassRegistry.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>
#include <KRVQTProcessClient/Version.h>
