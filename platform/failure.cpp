#include "platform/failure.h"

#include <utility>

namespace tabforge {

Utf16String DescribeRunTimeError(RunTimeError error) {
  switch (error) {
    case RunTimeError::kInvalidProcedureCall:
      return u"Invalid procedure call or argument";
    case RunTimeError::kOverflow:
      return u"Overflow";
    case RunTimeError::kOutOfMemory:
      return u"Out of memory";
    case RunTimeError::kSubscriptOutOfRange:
      return u"Subscript out of range";
    case RunTimeError::kCannotPerformOperation:
      return u"Can't perform requested operation";
    case RunTimeError::kOutOfStackSpace:
      return u"Out of stack space";
    case RunTimeError::kTypeMismatch:
      return u"Type mismatch";
    case RunTimeError::kInternalError:
      return u"Internal error";
    case RunTimeError::kObjectNotSet:
      return u"Object variable or With block variable not set";
    case RunTimeError::kInvalidUseOfNull:
      return u"Invalid use of Null";
    case RunTimeError::kObjectRequired:
      return u"Object required";
    case RunTimeError::kCannotCreateObject:
      return u"ActiveX component can't create object";
    case RunTimeError::kMemberNotFound:
      return u"Object doesn't support this property or method";
  }
  return u"Application-defined or object-defined error";
}

void Raise(RunTimeError error) {
  throw Failure{static_cast<std::int32_t>(error), DescribeRunTimeError(error)};
}

void Raise(std::int32_t number, Utf16String description) {
  throw Failure{number, std::move(description)};
}

}  // namespace tabforge
