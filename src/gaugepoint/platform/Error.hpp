#pragma once

#include <stdexcept>
#include <string>

namespace gaugepoint {

// Base of every error the library throws. what() is the exact user-facing description;
// each module's ...Error class derives from this and carries an enum Kind and its payload.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The error of one store or service: one of its `Kind`s and the description a person reads.
// Each store's error derives from it and adds one named constructor per kind.
template <class KindType>
class KindedError : public Error {
public:
    using Kind = KindType;
    Kind kind() const noexcept { return kind_; }

protected:
    KindedError(Kind kind, const std::string& message) : Error(message), kind_(kind) {}

private:
    Kind kind_;
};

}  // namespace gaugepoint
