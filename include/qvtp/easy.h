#pragma once

/// The easy face of libqvtp: servers and clients in a few lines, with values instead of pointers and one exception for
/// all failures. It is made of headers alone, on top of the exact classes of <qvtp/qvtp.h>, and may be mixed with them.
/// docs/easy.md is the guide.
///
///     qvtp::Server server("greetings");
///     server.onPost("/hello", [](const qvtp::Request& r) { return qvtp::Reply("Hello " + r.body()); });
///     server.runUntilSignal();
///
///     qvtp::Client client("greetings", std::chrono::seconds(2));
///     qvtp::Reply reply = client.post("/hello", "world");
///
#include <qvtp/easy/Body.h>
#include <qvtp/easy/Client.h>
#include <qvtp/easy/Error.h>
#include <qvtp/easy/Headers.h>
#include <qvtp/easy/Options.h>
#include <qvtp/easy/Reply.h>
#include <qvtp/easy/Request.h>
#include <qvtp/easy/Server.h>
