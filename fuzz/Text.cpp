// Reads any bytes as the text of any value type or enumeration. The first byte chooses the type.
// The others take the place of a piece of its zero value's text, the piece that starts where the
// second byte says and is as long as the third says; of all from there when that is 255.
//
// What reads must be written again as a text that reads back to the same; what does not must leave
// the value alone and, in a value type, say why.

#include "framework/Exception.h"
#include "framework/Type.h"
#include "framework/Value.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

/// All types that have values, by full name.
const std::vector< const Zek::TypeDescriptor * > &
types() {
   static const auto all = [] {
      std::map< std::string_view, const Zek::TypeDescriptor * > named;
      Zek::forEachType(
         []( const Zek::TypeDescriptor & type, void * context ) {
            if( !type.values ) return;
            ( *static_cast< decltype( named ) * >( context ) )[type.fullName] = &type;
         },
         &named );
      std::vector< const Zek::TypeDescriptor * > sorted;
      for( auto & [name, type] : named ) sorted.push_back( type );
      return sorted;
   }();
   return all;
}

class Value {
 public:
   explicit Value( const Zek::TypeDescriptor & type )
      : type_( type ),
        memory_( new std::byte[type.values->size] ) {
      type.values->construct( memory_.get() );
   }
   ~Value() { type_.values->destroy( memory_.get() ); }
   Value( const Value & ) = delete;
   Value & operator=( const Value & ) = delete;

   std::string text() const {
      std::string out;
      type_.values->append( memory_.get(), out );
      return out;
   }
   /// Strings that are too long throw instead.
   bool read( std::string_view text ) {
      try {
         return type_.values->read( text, memory_.get() );
      } catch( const Zek::RangeException & ) {
         return false;
      }
   }
   /// What is said of a text that does not read; empty for one that does.
   std::string refusal( std::string_view text ) {
      try {
         Zek::readValueOrThrow( type_, text, memory_.get() );
      } catch( const Zek::RangeException & error ) {
         return error.what();
      }
      return "";
   }

 private:
   const Zek::TypeDescriptor & type_;
   std::unique_ptr< std::byte[] > memory_;
};

void
require( bool holds ) {
   if( !holds ) std::abort();
}

} // namespace

extern "C" int
LLVMFuzzerTestOneInput( const uint8_t * data, size_t size ) {
   if( size < 3 ) return 0;
   const Zek::TypeDescriptor & type = *types()[data[0] % types().size()];
   Value value( type );
   const std::string before = value.text();
   std::string text = before;
   const size_t from = std::min< size_t >( data[1], text.size() );
   text.replace( from, data[2] == 255 ? text.npos : data[2],
                 reinterpret_cast< const char * >( data ) + 3, size - 3 );
   const bool reads = value.read( text );
   if( type.kind == Zek::TypeKind::value ) {
      Value other( type );
      require( other.refusal( text ).empty() == reads );
   }
   const std::string written = value.text();
   if( reads ) {
      Value back( type );
      require( back.read( written ) && back.text() == written );
   } else {
      require( written == before );
   }
   return 0;
}
