#include "tools/print/JsonText.h"

#include "framework/inspect/Reflect.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace Print {

void
JsonText::open( char bracket ) {
   begin();
   out_ += bracket;
   first_ = true;
   ++depth_;
}

void
JsonText::close( char bracket ) {
   --depth_;
   if( !first_ ) newLine();
   first_ = false;
   out_ += bracket;
}

void
JsonText::key( std::string_view name ) {
   begin();
   appendQuoted( name );
   out_ += oneLine_ ? ":" : ": ";
   named_ = true;
}

void
JsonText::string( std::string_view text ) {
   begin();
   appendQuoted( text );
}

void
JsonText::plain( std::string_view text ) {
   begin();
   out_ += text;
}

void
JsonText::newLine() {
   if( !oneLine_ ) out_.append( 1, '\n' ).append( 2 * depth_, ' ' );
}

/// What comes before a value: of a member its name has come already.
void
JsonText::begin() {
   if( std::exchange( named_, false ) || depth_ == 0 ) return;
   if( !std::exchange( first_, false ) ) out_ += ',';
   newLine();
}

void
JsonText::appendQuoted( std::string_view text ) {
   const bool simple = std::all_of( text.begin(), text.end(), []( char each ) {
      return each >= 0x20 && each < 0x7f && each != '"' && each != '\\';
   } );
   if( simple ) {
      out_.append( 1, '"' ).append( text ).append( 1, '"' );
      return;
   }
   try {
      out_ += nlohmann::json( text ).dump();
   } catch( const nlohmann::json::type_error & ) {
      out_ += nlohmann::json( Zek::Inspect::printable( text ) ).dump();
   }
}

} // namespace Print
