#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace quorva {

// The application identifier: settings domain, queue labels and error domains start with it.
inline constexpr const char* ApplicationIdentifier = "org.quorva.QuorvaRecorder";

// A failure as a value: a domain naming the component, a code, and an English sentence for the user.
class Error {
public:
    Error(std::string domain, int64_t code, std::string message)
        : _domain(std::move(domain)), _code(code), _message(std::move(message)) {}

    const std::string& domain() const { return _domain; }
    int64_t code() const { return _code; }
    const std::string& message() const { return _message; }

    bool operator==(const Error&) const = default;

private:
    std::string _domain;
    int64_t _code;
    std::string _message;
};

// The one way an operation that can fail answers: a value, or the error that kept it from one.
template <class T = void>
class [[nodiscard]] Result {
public:
    Result(T value) : _state(std::move(value)) {}
    Result(Error error) : _state(std::move(error)) {}

    bool ok() const { return _state.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(_state); }
    const T& value() const& { return std::get<0>(_state); }
    T&& value() && { return std::get<0>(std::move(_state)); }
    const Error& error() const { return std::get<1>(_state); }

private:
    std::variant<T, Error> _state;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : _error(std::move(error)), _failed(true) {}

    bool ok() const { return !_failed; }
    explicit operator bool() const { return ok(); }
    const Error& error() const { return _error; }

private:
    Error _error{"", 0, ""};
    bool _failed = false;
};

} // namespace quorva
