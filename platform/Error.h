#pragma once

#include <cstdint>
#include <optional>
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

// The one way an operation that can fail answers: a value, or the error that kept it from one. A module
// whose failures need more than a sentence (the updater's, which are shown in two languages) names its
// own error type.
template <class T = void, class E = Error>
class [[nodiscard]] Result {
public:
    Result(T value) : _state(std::move(value)) {}
    Result(E error) : _state(std::move(error)) {}

    bool ok() const { return _state.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(_state); }
    const T& value() const& { return std::get<0>(_state); }
    T&& value() && { return std::get<0>(std::move(_state)); }
    const E& error() const { return std::get<1>(_state); }

private:
    std::variant<T, E> _state;
};

template <class E>
class [[nodiscard]] Result<void, E> {
public:
    Result() = default;
    Result(E error) : _error(std::move(error)) {}

    bool ok() const { return !_error; }
    explicit operator bool() const { return ok(); }
    const E& error() const { return *_error; }

private:
    std::optional<E> _error;
};

} // namespace quorva
