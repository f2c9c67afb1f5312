// Argument errors of the framework and of every record type.
//
// A mutator reports a bad argument by one of these; the texts are part of the contract and are
// built in one place each. Internal inconsistencies are assertions instead (framework/Assert.h).

#pragma once

#include "framework/Export.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace Zek {

/// Base of all errors that the framework raises; what() is the exact text.
class IPSTATE_EXPORT Exception : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
   ~Exception() override;
};

/// A value out of its bounds, a text that does not read back, a null where an object is needed.
class IPSTATE_EXPORT RangeException : public Exception {
 public:
   using Exception::Exception;
   ~RangeException() override;
};

/// A collection member re-created under its key with other constructor arguments.
class IPSTATE_EXPORT NameInUseException : public Exception {
 public:
   using Exception::Exception;
   ~NameInUseException() override;
};

/// A write to a record that is held read-only.
class IPSTATE_EXPORT ReadOnlyException : public Exception {
 public:
   using Exception::Exception;
   ~ReadOnlyException() override;
};

/// A request by name or number that the attribute, type or value does not support; nothing has
/// changed. The text names type and attribute and says why.
class IPSTATE_EXPORT RejectedException : public Exception {
 public:
   using Exception::Exception;
   ~RejectedException() override;
};

[[noreturn]] IPSTATE_EXPORT void throwRangeException( std::string_view text );
[[noreturn]] IPSTATE_EXPORT void throwNameInUseException( std::string_view text );

/// Null given to the mutator of `attribute` of `type` (its full name): a RangeException with
/// "null _<attribute> parameter to mutator for <type>::<attribute> not allowed" and one
/// double-quote character. Deliberate: the stray quote ends every generated null message.
[[noreturn]] IPSTATE_EXPORT void throwNullParameterException( std::string_view type,
                                                              std::string_view attribute );

} // namespace Zek
