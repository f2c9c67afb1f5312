#include "platform/Velon/Prefix.h"

#include "platform/Velon/Scan.h"

#include <ostream>

namespace Velon {

namespace {

constexpr std::string_view
typeName( const Prefix & ) {
   return "Velon::Prefix";
}

constexpr std::string_view
typeName( const Ip6Prefix & ) {
   return "Velon::Ip6Prefix";
}

// A text with host bits is taken back whole: the address is what does not fit.
template< class Addr, class WithMask >
bool
scanPrefix( Scanner & scanner, PrefixOf< Addr, WithMask > & out ) {
   size_t begin = scanner.offset();
   WithMask read;
   if( !scan( scanner, read ) ) return false;
   PrefixOf< Addr, WithMask > prefix( read );
   if( !( prefix.addr() == read.addr() ) ) {
      scanner.offsetIs( begin );
      return false;
   }
   out = prefix;
   return true;
}

} // namespace

bool
scan( Scanner & scanner, Prefix & out ) {
   return scanPrefix( scanner, out );
}

bool
scan( Scanner & scanner, Ip6Prefix & out ) {
   return scanPrefix( scanner, out );
}

template< class Addr, class WithMask >
PrefixOf< Addr, WithMask >::PrefixOf( std::string_view text )
   : PrefixOf( readWholeOrThrow< PrefixOf >( typeName( PrefixOf() ), text ) ) {}

template< class Addr, class WithMask >
bool
PrefixOf< Addr, WithMask >::fromText( std::string_view text, PrefixOf & out ) {
   return readWhole( text, out );
}

template class PrefixOf< IpAddr, IpAddrWithMask >;
template class PrefixOf< Ip6Addr, Ip6AddrWithMask >;

std::ostream &
operator<<( std::ostream & out, const Prefix & prefix ) {
   return out << prefix.toString();
}

std::ostream &
operator<<( std::ostream & out, const Ip6Prefix & prefix ) {
   return out << prefix.toString();
}

} // namespace Velon
