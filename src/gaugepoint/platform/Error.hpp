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

}  // namespace gaugepoint
