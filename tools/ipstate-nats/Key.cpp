#include "tools/ipstate-nats/Key.h"

#include "framework/EntityUriPath.h"
#include "framework/Exception.h"
#include "framework/Text.h"
#include "framework/Type.h"

#include <algorithm>
#include <cstdint>

namespace IpstateNats {

namespace {

constexpr char hexDigits[] = "0123456789ABCDEF";

// By number: locales have no say in what a subject may hold.
bool
standsForItself( char c ) {
   return ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || ( c >= '0' && c <= '9' ) ||
          c == '-' || c == '_';
}

void
appendEscaped( char c, std::string & token ) {
   token += '=';
   token += hexDigits[static_cast< uint8_t >( c ) >> 4];
   token += hexDigits[static_cast< uint8_t >( c ) & 15];
}

int
digit( char c ) {
   const char * at = std::find( hexDigits, hexDigits + 16, c );
   return at == hexDigits + 16 ? -1 : static_cast< int >( at - hexDigits );
}

/// The collection of that name whose members are records, other than the children.
const Zek::AttributeRow *
recordsOf( const Zek::Entity & record, std::string_view name ) {
   const Zek::AttributeRow * row = record.fwkType()->attribute( name );
   return row && row->id != Zek::entityAttr && ownsRecords( *row ) ? row : nullptr;
}

std::string
tokenOfChild( const Zek::Entity & parent, std::string_view name ) {
   std::string token = tokenOf( name );
   // Else it would read as a collection with a key behind it.
   if( recordsOf( parent, token ) ) {
      std::string first;
      appendEscaped( token[0], first );
      token.replace( 0, 1, first );
   }
   return token;
}

} // namespace

std::string
tokenOf( std::string_view name ) {
   if( name.empty() ) return "=";
   std::string token;
   token.reserve( name.size() );
   for( char c : name ) {
      if( standsForItself( c ) && !( c == '_' && token.empty() ) ) {
         token += c;
      } else {
         appendEscaped( c, token );
      }
   }
   return token;
}

bool
nameOf( std::string_view token, std::string & name ) {
   name.clear();
   if( token == "=" ) return true;
   if( token.empty() || token[0] == '_' ) return false;
   for( size_t i = 0; i < token.size(); ++i ) {
      if( token[i] != '=' ) {
         if( !standsForItself( token[i] ) ) return false;
         name += token[i];
         continue;
      }
      const int high = i + 2 < token.size() ? digit( token[i + 1] ) : -1;
      const int low = i + 2 < token.size() ? digit( token[i + 2] ) : -1;
      if( high < 0 || low < 0 ) return false;
      name += static_cast< char >( high << 4 | low );
      i += 2;
   }
   return true;
}

std::string
joined( std::string_view key, std::string_view more ) {
   std::string result( key );
   if( !key.empty() && !more.empty() ) result += '.';
   return result += more;
}

std::string
tokenOfKey( const Zek::AttributeRow & collection, const void * key ) {
   std::string text;
   collection.keyType->values->append( key, text );
   return tokenOf( text );
}

std::string
keyOf( const Zek::Entity & record, const Zek::Entity & root ) {
   if( &record == &root ) return {};
   const Zek::Entity * parent = record.parent();
   if( !parent ) return {};
   const std::string above = keyOf( *parent, root );
   if( above.empty() && parent != &root ) return {};
   const Zek::AttributeRow * row = parent->fwkType()->attribute( record.parentAttrId() );
   if( !row || !row->collection ) return {};
   return Zek::withMemberKey( *row, &record, [&]( const void * key ) {
      if( row->id == Zek::entityAttr ) {
         const auto & name = *static_cast< const Zek::String * >( key );
         return joined( above, tokenOfChild( *parent, name.view() ) );
      }
      return joined( joined( above, row->name ), tokenOfKey( *row, key ) );
   } );
}

Place
placeOf( Zek::Entity & root, std::string_view key ) {
   std::vector< std::string_view > tokens;
   while( !key.empty() ) {
      const size_t dot = std::min( key.find( '.' ), key.size() );
      tokens.push_back( key.substr( 0, dot ) );
      key.remove_prefix( std::min( dot + 1, key.size() ) );
   }
   Place place{ &root, tokens.size(), nullptr, {} };
   std::string name;
   while( place.missing ) {
      const auto token = tokens.end() - static_cast< ptrdiff_t >( place.missing );
      size_t used = 1;
      const Zek::AttributeRow * row = recordsOf( *place.nearest, *token );
      if( row ) {
         used = 2;
         if( place.missing < used ) break;
      } else {
         row = place.nearest->fwkType()->attribute( uint16_t( Zek::entityAttr ) );
      }
      if( !row || !nameOf( token[used - 1], name ) ) break;
      Zek::GenericValue member;
      if( row->id == Zek::entityAttr ) {
         if( name.empty() ) break;
         member = Zek::GenericValue( Zek::String( name ) );
      } else {
         member = Zek::GenericValue::zero( *row->keyType );
         try {
            if( !row->keyType->values->read( name, member.address() ) ) break;
         } catch( const Zek::Exception & ) {
            break; // a name that is too long for its type
         }
      }
      const Zek::PtrInterface * found = row->collection->find( place.nearest, member.address() );
      if( !found ) {
         if( place.missing == used ) {
            place.collection = row;
            place.key = member;
         }
         break;
      }
      auto * entity = const_cast< Zek::Entity * >( dynamic_cast< const Zek::Entity * >( found ) );
      if( !entity ) break;
      place.nearest = entity;
      place.missing -= used;
   }
   return place;
}

} // namespace IpstateNats
