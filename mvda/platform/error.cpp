#include <mvda/platform/error.h>

#include <utility>

NCError::NCError(std::string message, int level) : message_(std::move(message)), level_(level) {}

// Out of line so that the vtable and type information live in the library, and an NCError thrown
// inside it is caught by type in the host.
NCError::~NCError() = default;

const char* NCError::what() const noexcept { return message_.c_str(); }
