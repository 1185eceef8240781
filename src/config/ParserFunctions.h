#pragma once

#include <cstdio>

/// All that the library and its parser module know of each other. The module is a file of its own, so that the XML
/// parser, and the libraries which that needs, cost nothing where there is no configuration file. No type of the parser
/// is seen here. Texts are well-formed UTF-8, end with a zero, and are valid during the call.
///
/// Whatever changes here needs another PARSER_ENTRY: a module of another make is then refused, not called.
namespace Quovane::Internal::Qvtp {

/// What parse() calls. Any of them may throw: the document is given up then.
struct ParserCalls {
    void* context;  // not owned; goes into each of them

    /// The file, for reading from its begin, null if it cannot be opened. The module closes it.
    std::FILE* (*open)(void* context);
    /// An error of the document, to be logged. A null pointer is a failure that the parser has no words for.
    void (*error)(void* context, const char* message);
    /// The next child element of the root, in the order of the document. Its attributes follow.
    void (*element)(void* context, const char* name);
    void (*attribute)(void* context, const char* name, const char* value);
};

struct ParserFunctions {
    /// Comes before all others. A failure is reported by error(); the others may be called all the same. Of `calls`
    /// only that is used.
    void (*initialize)(const ParserCalls& calls);
    /// Reads the whole document, then reports its elements. The path is for messages, and to find what the document
    /// refers to. False if there is an error that ends it, which has been reported. Throws nothing of its own.
    bool (*parse)(const char* path, const ParserCalls& calls);
    /// The number that a value of an attribute stands for. Throws the parser's NumberFormatException if it is none:
    /// that class is part of the interface of QvtpConfig, and only the module knows it.
    int (*toInteger)(const char* value);
};

/// The one name that the module exports, without parameters.
constexpr char PARSER_ENTRY[] = "qvtpConfigParser1";
using ParserEntry = const ParserFunctions* (*)();

}  // namespace Quovane::Internal::Qvtp
