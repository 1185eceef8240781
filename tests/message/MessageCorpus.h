#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qvtp_test {

/// One message as it may come over a pipe.
struct CorpusMessage {
    const char* what;
    bool isRequest;
    std::string bytes;
    bool hasEnd;  ///< whether the reader finds the end of the message without the end of the stream
};

inline void PrintTo(const CorpusMessage& message, std::ostream* out) {
    *out << message.what;
}

/// Requests and responses, well-formed and not.
inline const std::vector<CorpusMessage>& messageCorpus() {
    static const std::string digits = "0123456789";
    static const std::vector<CorpusMessage> corpus = {
        {"a request with a body of known length", true,
         "POST /r QVTP/1.0\r\nContent-Length: 5\r\nUser-Agent: agent\r\n\r\nhello", true},
        {"a request without a body", true, "NOTIFY /n QVTP/1.0\r\nContent-Length: 0\r\n\r\n", true},
        {"a response with a body of known length", false,
         "QVTP/1.0 200 OK\r\nContent-Length: 3\r\nServer: server\r\n\r\nabc", true},
        {"a response whose reason ends in a blank", false,
         "QVTP/1.0 414 Resource-ID Too Long \r\nContent-Length: 0\r\n\r\n", true},
        {"a chunked request", true,
         "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nA\r\n" + digits + "\r\n0\r\n\r\n", true},
        {"a chunked response of many chunks", false,
         "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n1\r\nb\r\n2;x=y\r\ncd\r\n0\r\n\r\n", true},
        {"a chunked message without a byte", false, "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
         true},
        {"lines that end in a line feed alone", true, "POST /r QVTP/1.0\nContent-Length: 2\n\nab", true},
        {"empty lines before the start line", true, "\r\n\n\r\nPOST /r QVTP/1.0\r\nContent-Length: 2\r\n\r\nab", true},
        {"continued and repeated headers", true,
         "POST /r QVTP/1.0\r\nX: a,\r\n\tb\r\n  c\r\nx: d\r\nContent-Length: 1\r\n\r\nz", true},
        {"headers without values and without a colon", true,
         "POST /r QVTP/1.0\r\nEmpty:\r\nNo colon\r\n: nameless\r\nContent-Length: 1\r\n\r\nz", true},
        {"a start line without blanks", true, "POST\r\nContent-Length: 0\r\n\r\n", true},
        {"bytes that are not UTF-8", false,
         "QVTP/1.0 200 \xE4\r\nX: \xE4\xC3\xA4\xFF\r\nContent-Length: 2\r\n\r\n\xFF\xFE", true},
        {"zero bytes everywhere", true, std::string("PO\0ST /r\r\nX: \0a\r\nContent-Length: 3\r\n\r\n\0\0\0", 41),
         true},
        {"both lengths", true, "POST /r QVTP/1.0\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\nabc", true},
        {"several lengths", true, "POST /r QVTP/1.0\r\nContent-Length: 2,9\r\n\r\nab", true},
        {"a length that ends in letters", true, "POST /r QVTP/1.0\r\nContent-Length: 2x\r\n\r\nab", true},
        {"a length without digits", true, "POST /r QVTP/1.0\r\nContent-Length: many\r\n\r\n", true},
        {"a length of minus one, which means chunks", true,
         "POST /r QVTP/1.0\r\nContent-Length: -1\r\n\r\n2\r\nab\r\n0\r\n\r\n", true},
        {"a negative length", true, "POST /r QVTP/1.0\r\nContent-Length: -7\r\n\r\nuntil the end", false},
        {"a long header line", true,
         "POST /r QVTP/1.0\r\nX: " + std::string(2100, 'v') + "\r\nContent-Length: 1\r\n\r\nz", true},
        {"no length at all", true, "POST /r QVTP/1.0\r\nX: 1\r\n\r\n", true},
        {"another transfer encoding", false, "QVTP/1.0 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n", true},
        {"a bad end of a chunk", false,
         "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabcXX3\r\nabc\r\n0\r\n\r\n", false},
        {"a bad end of the last chunk", false, "QVTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nX: 1\r\n\r\n",
         false},
        {"a size line that is too long", true,
         "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n00000000000000000000001\r\nb\r\n0\r\n\r\n",
         false},
        {"a size that does not fit", true,
         "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n1ffffffff\r\nb\r\n0\r\n\r\n", false},
        {"a size without digits, which is the last chunk", true,
         "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\nzz\r\n\r\n", true},
        {"a negative size", true, "POST /r QVTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n-1\r\nuntil the end", false},
        {"a body that is cut off", true, "POST /r QVTP/1.0\r\nContent-Length: 100\r\n\r\nshort", false},
        {"a head that is cut off", true, "POST /r QVTP/1.0\r\nContent-Len", false},
        {"nothing", true, "", false},
    };
    return corpus;
}

}  // namespace qvtp_test
