#include "agents/ipstated/Intent.h"

#include "agents/ipstated/Reflect.h"

#include "framework/Exception.h"
#include "framework/Generic.h"
#include "framework/Wire.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <tuple>

namespace Ipstated {

namespace {

using Operation = Zek::GenericOperation;
using Value = Zek::GenericValue;

constexpr std::string_view heading = "ipstate intent 1";
constexpr size_t step = 3; // columns
constexpr size_t sumDigits = 8;

bool
isKept( const Zek::AttributeRow & row ) {
   if( row.id <= Zek::entityAttr ) return false;
   if( row.collection ) return !row.has( Zek::refersToMembers );
   return row.kind == Zek::AttributeKind::plain && row.isWritable() &&
          row.has( Zek::isStoredValue );
}

std::string
escaped( std::string_view text, std::string_view others ) {
   std::string result;
   for( char each : text ) {
      const bool plain =
         each >= 0x20 && each < 0x7f && each != '\\' && others.find( each ) == others.npos;
      if( plain ) {
         result += each;
      } else {
         char digits[8];
         snprintf( digits, sizeof digits, "\\x%02x", uint8_t( each ) );
         result += digits;
      }
   }
   return result;
}

std::string
unescaped( std::string_view text ) {
   std::string result;
   for( size_t at = 0; at < text.size(); ++at ) {
      uint8_t byte = 0;
      const std::string_view rest = text.substr( at );
      if( rest.size() >= 4 && rest.starts_with( "\\x" ) &&
          std::from_chars( rest.data() + 2, rest.data() + 4, byte, 16 ).ptr == rest.data() + 4 ) {
         result += char( byte );
         at += 3;
      } else {
         result += text[at];
      }
   }
   return result;
}

/// Of all lines so far.
class RunningSum {
 public:
   std::string add( std::string_view line ) {
      sum_ = Zek::Wire::checksum( line.data(), line.size(), sum_ );
      char digits[sumDigits + 1];
      snprintf( digits, sizeof digits, "%08x", sum_ );
      return digits;
   }

 private:
   uint32_t sum_ = 0;
};

// -- Writing ----------------------------------------------------------------------------------

class Writer {
 public:
   void line( size_t indent, const std::string & text ) {
      const std::string whole = std::string( indent * step, ' ' ) + text;
      out_ += sum_.add( whole ) + " " + whole + "\n";
   }

   void attributes( const Zek::Entity & record, size_t indent ) {
      for( const Zek::AttributeRow * row : rowsOf( *record.fwkType() ) ) {
         if( !isKept( *row ) ) continue;
         if( row->collection ) {
            members( record, *row, indent );
         } else {
            std::string text;
            row->stored->append( row->address( &record ), text );
            if( text != defaultOf( record, *row ) ) {
               line( indent, row->name + ( " = " + escaped( text, "" ) ) );
            }
         }
      }
   }

   std::string take() { return std::move( out_ ); }

 private:
   void members( const Zek::Entity & record, const Zek::AttributeRow & row, size_t indent ) {
      forEachMember( record, row, [&]( const Zek::PtrInterface & member, const void * key ) {
         std::string text;
         row.keyType->values->append( key, text );
         const std::string name = row.name + ( "[" + escaped( text, "[]" ) + "]" );
         const void * value = valueOf( row, member );
         if( row.has( Zek::ownsMembers ) ) {
            line( indent, name );
            attributes( dynamic_cast< const Zek::Entity & >( member ), indent + 1 );
         } else if( value ) {
            std::string now;
            row.type->values->append( value, now );
            line( indent, name + " = " + escaped( now, "" ) );
         } else {
            line( indent, name );
         }
      } );
   }

   /// The text of an attribute of a fresh record of that type.
   const std::string & defaultOf( const Zek::Entity & record, const Zek::AttributeRow & row ) {
      const Zek::TypeDescriptor & type = *record.fwkType();
      auto [known, isNew] = defaults_.try_emplace( &row );
      if( isNew ) {
         std::vector< Value > arguments;
         for( const Zek::ParameterRow & parameter : type.constructorParameters ) {
            arguments.push_back( type.genericIf->genericIfAttributeOp(
               record, Operation::read, std::string_view( parameter.name ) ) );
         }
         const Value fresh = type.genericIf->genericIfFromCtorArgs( arguments );
         row.stored->append( row.address( fresh.object() ), known->second );
      }
      return known->second;
   }

   std::string out_;
   RunningSum sum_;
   std::map< const Zek::AttributeRow *, std::string > defaults_;
};

// -- Reading ----------------------------------------------------------------------------------

class Reader {
 public:
   Reader( std::string_view text, Intent & intent ) : text_( text ), intent_( intent ) {}

   void read() {
      if( next() != heading ) fail( "'" + std::string( heading ) + "' expected" );
      for( ;; ) {
         const std::string_view line = next();
         if( line == "end" ) break;
         if( line.starts_with( "owned " ) ) {
            const size_t blank = line.find( ' ', 6 );
            if( blank == line.npos ) fail( "an interface and an address expected" );
            intent_.owned.emplace_back( unescaped( line.substr( 6, blank - 6 ) ),
                                        unescaped( line.substr( blank + 1 ) ) );
         } else {
            attribute( line );
         }
      }
      if( at_ != text_.size() ) fail( "nothing expected behind the end" );
   }

 private:
   [[noreturn]] void fail( const std::string & expected ) const {
      throw std::runtime_error( "damaged at line " + std::to_string( number_ ) + ", byte " +
                                std::to_string( begin_ ) + ": " + printable( expected ) );
   }

   std::string_view next() {
      begin_ = at_;
      ++number_;
      const size_t end = text_.find( '\n', at_ );
      if( end == text_.npos ) fail( "a whole line expected" );
      const std::string_view line = text_.substr( at_, end - at_ );
      at_ = end + 1;
      if( line.size() <= sumDigits || line[sumDigits] != ' ' ||
          line.substr( 0, sumDigits ) != sum_.add( line.substr( sumDigits + 1 ) ) ) {
         fail( "its checksum is not that of the line" );
      }
      return line.substr( sumDigits + 1 );
   }

   /// One line of an attribute, a member, or a record that stands by itself.
   void attribute( std::string_view line ) {
      const size_t columns = line.find_first_not_of( ' ' );
      if( columns == line.npos || columns % step ) fail( "an indented line expected" );
      const size_t depth = columns / step;
      line.remove_prefix( columns );
      if( depth == 0 ) {
         for( const Zek::Entity::Ptr & record : intent_.records ) {
            if( line == record->fwkType()->fullName + ( "  " + record->fullName().toString() ) ) {
               above_ = { Value( record ) };
               return;
            }
         }
         fail( "a record that is kept expected" );
      }
      if( depth > above_.size() ) fail( "a line less indented expected" );
      above_.resize( depth );
      try {
         take( line );
      } catch( const Zek::Exception & refused ) {
         fail( refused.what() );
      }
   }

   void take( std::string_view line ) {
      Value record = above_.back();
      const Zek::TypeDescriptor & type = *record.object()->fwkType();
      const size_t equals = line.find( " = " );
      const size_t open = line.substr( 0, equals ).find( '[' );
      const std::string name( line.substr( 0, std::min( open, equals ) ) );
      const Zek::AttributeRow & row = type.genericIf->attribute( name );
      if( !isKept( row ) || bool( row.collection ) != ( open != line.npos ) ) {
         fail( "an attribute that is kept expected" );
      }
      const std::string text =
         equals == line.npos ? std::string() : unescaped( line.substr( equals + 3 ) );
      if( !row.collection ) {
         type.genericIf->genericIfAttributeOp( record, Operation::write, row.id,
                                               { Value::fromText( *row.type, text ) } );
         return;
      }
      const size_t close = line.find( ']', open );
      if( close == line.npos ) fail( "a key in brackets expected" );
      const Value key =
         Value::fromText( *row.keyType, unescaped( line.substr( open + 1, close - open - 1 ) ) );
      const auto add = [&]( std::initializer_list< Value > arguments ) {
         return type.genericIf->genericIfAttributeOp( record, Operation::add, row.id,
                                                      { arguments.begin(), arguments.size() } );
      };
      if( row.has( Zek::ownsMembers ) ) {
         above_.push_back( add( { key } ) );
      } else if( row.has( Zek::isSet ) ) {
         add( { key } );
      } else if( row.has( Zek::keyIsField ) ) {
         add( { Value::fromText( *row.type, text ) } );
      } else {
         add( { key, Value::fromText( *row.type, text ) } );
      }
   }

   const std::string_view text_;
   Intent & intent_;
   RunningSum sum_;
   size_t at_ = 0;
   size_t begin_ = 0; ///< of the present line
   size_t number_ = 0;
   std::vector< Value > above_; ///< the records that what comes belongs to
};

} // namespace

std::string
intentText( const Intent & intent ) {
   Writer writer;
   writer.line( 0, std::string( heading ) );
   for( const Zek::Entity::Ptr & record : intent.records ) {
      writer.line( 0, record->fwkType()->fullName + ( "  " + record->fullName().toString() ) );
      writer.attributes( *record, 1 );
   }
   for( const auto & [intf, address] : intent.owned ) {
      writer.line( 0, "owned " + escaped( intf, " " ) + " " + escaped( address, "" ) );
   }
   writer.line( 0, "end" );
   return writer.take();
}

void
readIntent( std::string_view text, Intent & intent ) {
   Reader( text, intent ).read();
}

} // namespace Ipstated
