// Velon::IntfId: the identity of an interface, which is its name.
//
// One machine word, interned: equality and hash take constant time. Orders naturally, runs of
// digits by their number: Ethernet2 before Ethernet10, Ethernet1/2 before Ethernet1/10. Any
// thread may make, copy and compare ids; their texts live as long as the process.

#pragma once

#include "framework/Export.h"
#include "framework/Name.h"
#include "framework/String.h"
#include "platform/Velon/Companions.h"

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velon {

class IPSTATE_EXPORT IntfId {
 public:
   /// The empty id: no interface.
   constexpr IntfId() = default;
   explicit IntfId( const char * name ) : name_( name ) {}
   explicit IntfId( std::string_view name ) : name_( name ) {}
   explicit IntfId( const std::string & name ) : name_( name ) {}
   explicit IntfId( const Zek::String & name ) : name_( name ) {}
   constexpr explicit IntfId( Zek::Name name ) : name_( name ) {}

   constexpr Zek::Name name() const { return name_; }
   /// Valid for the life of the process; a zero byte follows the last one.
   std::string_view view() const { return name_.view(); }
   const char * charPtr() const { return name_.charPtr(); }
   /// Fetches the text into the cache.
   void prefetch() const { name_.prefetch(); }
   constexpr bool empty() const { return name_.empty(); }
   constexpr explicit operator bool() const { return !name_.empty(); }

   constexpr uint32_t hash() const { return name_.hash(); }
   constexpr uint32_t reversedHash() const { return name_.reversedHash(); }

   friend constexpr bool operator==( IntfId a, IntfId b ) { return a.name_ == b.name_; }
   friend std::strong_ordering operator<=>( IntfId a, IntfId b ) {
      return a == b ? std::strong_ordering::equal : naturalOrder( a.view(), b.view() );
   }

   /// Runs of digits compare by number, other bytes by value; texts that differ in leading zeros
   /// only, by bytes. Equal exactly for equal texts.
   static std::strong_ordering naturalOrder( std::string_view a, std::string_view b );

   /// The interface name as it is, also in the text of a value.
   using BareText = void;
   void appendTo( std::string & out ) const { out.append( view() ); }
   std::string toString() const { return std::string( view() ); }
   /// Any text is an id; the empty text is the empty id.
   static bool fromText( std::string_view text, IntfId & out ) {
      out = IntfId( text );
      return true;
   }

 private:
   Zek::Name name_;
};

static_assert( sizeof( IntfId ) == 8 && std::is_trivially_copyable_v< IntfId > );

/// What is known of loopback interfaces by their ids.
class IPSTATE_EXPORT LoopbackIntfId {
 public:
   /// "Loopback" and at least one digit and nothing more, or the kernel's "lo".
   static bool isLoopbackIntfId( IntfId intfId );
};

IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, IntfId intfId );

} // namespace Velon
