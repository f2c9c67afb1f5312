// The address families. Text: the enumerator's name.

#pragma once

#include "framework/Export.h"
#include "framework/String.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Velon {

enum class AddressFamily : uint8_t {
   none = 0, /// of the empty either-family address
   ipv4 = 1,
   ipv6 = 2,
};
using enum AddressFamily;

/// The enumerator of a number or name; throws Zek::RangeException for any other.
IPSTATE_EXPORT AddressFamily AddressFamilyInstance( uint32_t number );
IPSTATE_EXPORT AddressFamily AddressFamilyInstance( std::string_view name );

/// The name of an enumerator; of any other number "AddressFamily(<number>)", which does not
/// read back.
IPSTATE_EXPORT void appendTo( AddressFamily af, std::string & out );
IPSTATE_EXPORT std::string toString( AddressFamily af );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, AddressFamily af );
IPSTATE_EXPORT Zek::String stringValue( AddressFamily af );
IPSTATE_EXPORT Zek::String valueToStrep( AddressFamily af );
/// Reads the whole of [begin, end); throws Zek::RangeException when it is no enumerator's name.
IPSTATE_EXPORT void sequenceToValue( Zek::String::IteratorConst begin,
                                     Zek::String::IteratorConst end, AddressFamily & value );
/// True with the enumerator if `text` is exactly its name.
IPSTATE_EXPORT bool fromText( std::string_view text, AddressFamily & out );

} // namespace Velon
