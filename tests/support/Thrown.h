#pragma once

#include <qvtp/io/BindException.h>
#include <qvtp/io/BrokenPipeException.h>
#include <qvtp/io/ConnectException.h>
#include <qvtp/io/IllegalArgumentException.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/QvPipeException.h>
#include <qvtp/io/TimeoutException.h>

#include <exception>
#include <string>
#include <typeinfo>

namespace qvtp_test {

/// What an action throws, as "Class: text" with " [code]" if there is one; "nothing" if it returns. The class is the
/// exact one, so that a subclass does not pass for its base. IllegalArgumentException has no text to be read.
template <typename Action>
std::string thrownBy(const Action& action) {
    using namespace Quovane::Io;
    try {
        action();
        return "nothing";
    } catch (QvPipeException& e) {
        const std::type_info& type = typeid(e);
        const char* name = type == typeid(BindException)          ? "BindException"
                           : type == typeid(BrokenPipeException)  ? "BrokenPipeException"
                           : type == typeid(ConnectException)     ? "ConnectException"
                           : type == typeid(InterruptedException) ? "InterruptedException"
                           : type == typeid(TimeoutException)     ? "TimeoutException"
                           : type == typeid(QvPipeException)      ? "QvPipeException"
                                                                  : "unknown subclass";
        const std::string code = e.getCode() != 0 ? " [" + std::to_string(e.getCode()) + "]" : "";
        return name + (": " + e.getMessage()) + code;
    } catch (const IllegalStateException& e) {
        const std::string code = e.getCode() != 0 ? " [" + std::to_string(e.getCode()) + "]" : "";
        return "IllegalStateException: " + e.getMessage() + code;
    } catch (const IllegalArgumentException&) {
        return "IllegalArgumentException";
    } catch (const std::exception& e) {
        return std::string("std::exception: ") + e.what();
    } catch (...) {
        return "something else";
    }
}

}  // namespace qvtp_test
