// JSON as text, written from the front to the back.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace Print {

/// Members stand in the order in which they come, on one line or, two columns a level, one a line.
class JsonText {
 public:
   explicit JsonText( bool oneLine = true ) : oneLine_( oneLine ) {}

   void open( char bracket );
   void close( char bracket );
   void key( std::string_view name );
   /// Of something else than UTF-8, the odd bytes are escaped as \xNN.
   void string( std::string_view text );
   /// What is written in JSON as it is.
   void plain( std::string_view text );
   void number( uint64_t value ) { plain( std::to_string( value ) ); }
   void truth( bool value ) { plain( value ? "true" : "false" ); }

   void member( std::string_view name, std::string_view text ) {
      key( name );
      string( text );
   }
   std::string take() { return std::move( out_ ); }

 private:
   void newLine();
   void begin();
   void appendQuoted( std::string_view text );

   bool oneLine_;
   std::string out_;
   size_t depth_ = 0;
   bool first_ = true;
   bool named_ = false;
};

} // namespace Print
