#include "QLModel/InvariantMismatch.h"

#include <ostream>

namespace ql {

std::string InvariantMismatch::description() const { return field + ": expected " + expected + ", found " + actual; }

std::ostream& operator<<(std::ostream& out, const InvariantMismatch& mismatch) { return out << mismatch.description(); }

}  // namespace ql
