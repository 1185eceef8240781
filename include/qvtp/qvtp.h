#pragma once

/// Everything that libqvtp offers: clients (client/), servers (server/), the configuration file (config/), and what
/// both are made of. Start with QvtpClient and PostRequest, or with QvtpServer and QvtpHandler.
#include <qvtp/Export.h>
#include <qvtp/client/AbstractQvtpRequest.h>
#include <qvtp/client/NotifyRequest.h>
#include <qvtp/client/OneWayRequest.h>
#include <qvtp/client/PostRequest.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpConnectionManager.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/client/TwoWayRequest.h>
#include <qvtp/config/QvtpConfig.h>
#include <qvtp/io/BindException.h>
#include <qvtp/io/BrokenPipeException.h>
#include <qvtp/io/ConnectException.h>
#include <qvtp/io/IllegalArgumentException.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/PipeBufferBase.h>
#include <qvtp/io/QvPipe.h>
#include <qvtp/io/QvPipeException.h>
#include <qvtp/io/ServerQvPipe.h>
#include <qvtp/io/TimeoutException.h>
#include <qvtp/logging/LoggingLevel.h>
#include <qvtp/message/QvtpMessage.h>
#include <qvtp/message/QvtpMessageIn.h>
#include <qvtp/message/QvtpMessageOut.h>
#include <qvtp/message/Version.h>
#include <qvtp/platform/NativeHandle.h>
#include <qvtp/platform/PipeFacts.h>
#include <qvtp/platform/StopSignal.h>
#include <qvtp/server/QvtpHandler.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>
#include <qvtp/server/QvtpServerResponse.h>
