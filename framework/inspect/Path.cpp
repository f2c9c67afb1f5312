#include "framework/inspect/Path.h"

#include "framework/inspect/Reflect.h"

#include <algorithm>
#include <cctype>

namespace Zek::Inspect {

NotFoundException::~NotFoundException() = default;

namespace {

bool
isPrint( char c ) {
   return c >= 0x20 && c < 0x7f;
}

/// Reads a path from left to right.
class Reader {
 public:
   explicit Reader( std::string_view text ) : text_( text ) {}

   std::vector< Step > steps() {
      std::vector< Step > steps;
      if( next() == '/' ) ++at_;
      bool isAttribute = false;
      while( at_ < text_.size() ) {
         steps.push_back( step( isAttribute ) );
         if( at_ == text_.size() ) break;
         if( next() != '/' && next() != '.' ) fail( "\"/\", \".\" or the end" );
         isAttribute = next() == '.';
         ++at_;
         // "ip/status/" is "ip/status", as directories are written.
         if( isAttribute && at_ == text_.size() ) fail( "an attribute" );
      }
      return steps;
   }

 private:
   char next() const { return at_ < text_.size() ? text_[at_] : '\0'; }

   Step step( bool isAttribute ) {
      Step step;
      step.isAttribute = isAttribute;
      step.isQuoted = next() == '"';
      if( step.isQuoted ) {
         step.name = quoted();
      } else {
         const size_t end = std::min( text_.find_first_of( "/.[]\"", at_ ), text_.size() );
         if( end == at_ ) fail( "a name" );
         step.name = text_.substr( at_, end - at_ );
         at_ = end;
      }
      if( next() != '[' ) return step;
      ++at_;
      step.pick = Step::Pick::one;
      if( next() == '"' ) {
         step.key = quoted();
      } else {
         const size_t end = std::min( text_.find( ']', at_ ), text_.size() );
         step.key = text_.substr( at_, end - at_ );
         at_ = end;
         if( step.key == "*" ) step.pick = Step::Pick::all;
      }
      if( next() != ']' ) fail( "\"]\"" );
      ++at_;
      return step;
   }

   std::string quoted() {
      std::string bytes;
      for( ++at_; next() != '"'; ++at_ ) {
         if( at_ >= text_.size() ) fail( "a closing quote" );
         if( next() != '\\' ) {
            bytes += next();
            continue;
         }
         ++at_;
         if( next() == '"' || next() == '\\' ) {
            bytes += next();
         } else {
            bytes += escaped();
         }
      }
      ++at_;
      return bytes;
   }

   char escaped() {
      auto digit = [&]( size_t at ) {
         const int c = at < text_.size() ? std::tolower( uint8_t( text_[at] ) ) : 0;
         if( !std::isxdigit( c ) ) fail( "\\\", \\\\ or \\x and two hexadecimal digits" );
         return c >= 'a' ? c - 'a' + 10 : c - '0';
      };
      if( next() != 'x' ) fail( "\\\", \\\\ or \\x and two hexadecimal digits" );
      const char byte = char( digit( at_ + 1 ) << 4 | digit( at_ + 2 ) );
      at_ += 2;
      return byte;
   }

   [[noreturn]] void fail( const char * expected ) {
      throwRangeException( "path '" + printable( text_ ) + "': expected " + expected +
                           " at offset " + std::to_string( at_ ) );
   }

   std::string_view text_;
   size_t at_ = 0;
};

void
appendQuoted( std::string_view text, std::string & out ) {
   static const char digits[] = "0123456789abcdef";
   out += '"';
   for( char c : text ) {
      if( c == '"' || c == '\\' ) {
         out += '\\';
         out += c;
      } else if( isPrint( c ) ) {
         out += c;
      } else {
         out += "\\x";
         out += digits[uint8_t( c ) >> 4];
         out += digits[uint8_t( c ) & 15];
      }
   }
   out += '"';
}

/// Names that a reader may have meant one for the other are few steps apart.
size_t
distance( std::string_view a, std::string_view b ) {
   std::vector< size_t > row( b.size() + 1 );
   for( size_t j = 0; j <= b.size(); ++j ) row[j] = j;
   for( size_t i = 1; i <= a.size(); ++i ) {
      size_t diagonal = row[0];
      row[0] = i;
      for( size_t j = 1; j <= b.size(); ++j ) {
         const bool same =
            std::tolower( uint8_t( a[i - 1] ) ) == std::tolower( uint8_t( b[j - 1] ) );
         const size_t changed = diagonal + !same;
         diagonal = row[j];
         row[j] = std::min( { row[j] + 1, row[j - 1] + 1, changed } );
      }
   }
   return row[b.size()];
}

} // namespace

Path::Path( std::string_view text ) : steps_( Reader( text ).steps() ) {}

bool
Path::picksAll() const {
   return std::any_of( steps_.begin(), steps_.end(),
                       []( const Step & step ) { return step.pick == Step::Pick::all; } );
}

std::string
Path::text() const {
   std::string out;
   for( const Step & step : steps_ ) {
      if( !out.empty() ) out += step.isAttribute ? '.' : '/';
      if( step.isQuoted ) {
         appendQuoted( step.name, out );
      } else {
         appendName( step.name, out );
      }
      if( step.pick == Step::Pick::all ) out += "[*]";
      if( step.pick == Step::Pick::one ) {
         out += '[';
         appendKey( step.key, out );
         out += ']';
      }
   }
   return out;
}

void
appendName( std::string_view name, std::string & out ) {
   // A dot at an end, or two together, would leave a step without a name.
   const bool bare = !name.empty() && std::all_of( name.begin(), name.end(), isPrint ) &&
                     name.find_first_of( "/[]\"" ) == name.npos && name.front() != '.' &&
                     name.back() != '.' && name.find( ".." ) == name.npos;
   if( bare ) {
      out += name;
   } else {
      appendQuoted( name, out );
   }
}

void
appendKey( std::string_view key, std::string & out ) {
   const bool bare = std::all_of( key.begin(), key.end(), isPrint ) && key != "*" &&
                     key.find( ']' ) == key.npos && !key.starts_with( '"' );
   if( bare ) {
      out += key;
   } else {
      appendQuoted( key, out );
   }
}

std::string
joined( const std::string & path, std::string_view step ) {
   if( path.empty() || step.empty() ) return path + std::string( step );
   return path + "/" + std::string( step );
}

std::string
memberPath( const std::string & path, const AttributeRow & row, const PtrInterface * member,
            std::string_view key ) {
   std::string out = path;
   if( row.has( ownsMembers ) ) {
      if( !out.empty() ) out += '/';
      const auto entity = dynamic_cast< const Entity * >( member );
      const Name name = entity ? entity->name() : Name();
      if( !name.empty() ) {
         appendName( name.view(), out );
         return out;
      }
   } else if( !out.empty() ) {
      out += row.has( refersToMembers ) ? '/' : '.';
   }
   out += row.name;
   out += '[';
   appendKey( key, out );
   out += ']';
   return out;
}

std::string
pathOf( const Entity & entity ) {
   const Entity * parent = entity.parent();
   if( !parent ) return {};
   const AttributeRow * row = parent->fwkType()->attribute( entity.parentAttrId() );
   std::string key;
   if( row && row->collection ) {
      withMemberKey( *row, &entity,
                     [&]( const void * at ) { row->keyType->values->append( at, key ); } );
      return memberPath( pathOf( *parent ), *row, &entity, key );
   }
   return pathOf( *parent );
}

std::string
pathOf( const PtrInterface & object ) {
   const auto entity = dynamic_cast< const Entity * >( &object );
   std::string path = entity ? pathOf( *entity ) : std::string();
   if( !path.empty() ) return path;
   const TypeDescriptor * type = object.fwkType();
   return "(" + std::string( type ? type->fullName : "object" ) + ")";
}

std::string
nearest( std::string_view name, const std::vector< std::string > & candidates ) {
   const std::string * best = nullptr;
   size_t least = 0;
   for( const std::string & candidate : candidates ) {
      const bool isPart = name.size() >= 3 && candidate.find( name ) != candidate.npos;
      const size_t steps = isPart ? 1 : distance( name, candidate );
      if( steps > std::max( name.size(), candidate.size() ) / 3 + 1 ) continue;
      if( !best || steps < least ) {
         best = &candidate;
         least = steps;
      }
   }
   return best ? *best : std::string();
}

} // namespace Zek::Inspect
