// What a terminal shows in colour.

#pragma once

#include <string>

namespace Print {

/// Texts with the codes around them; without colour as they are.
class Style {
 public:
   explicit Style( bool colour = false ) : colour_( colour ) {}

   bool isColoured() const { return colour_; }
   std::string name( const std::string & text ) const { return in( "36", text ); }
   std::string type( const std::string & text ) const { return in( "35", text ); }
   std::string value( const std::string & text ) const { return in( "32", text ); }
   std::string heading( const std::string & text ) const { return in( "1", text ); }
   std::string frame( const std::string & text ) const { return in( "2", text ); }
   std::string added( const std::string & text ) const { return in( "32", text ); }
   std::string removed( const std::string & text ) const { return in( "31", text ); }

 private:
   std::string in( const char * code, const std::string & text ) const {
      if( !colour_ || text.empty() ) return text;
      return "\x1b[" + std::string( code ) + "m" + text + "\x1b[0m";
   }

   bool colour_;
};

} // namespace Print
