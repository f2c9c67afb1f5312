// Types written by hand for Sample.zek to declare as foreign.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Sample {

enum class Parity : uint8_t { even = 0, odd = 1 };

/// A temperature in degrees; its text is the bare number.
class Celsius {
 public:
   Celsius() = default;
   explicit Celsius( int degrees ) : degrees_( degrees ) {}
   int degrees() const { return degrees_; }
   bool operator==( const Celsius & other ) const = default;
   bool operator<( const Celsius & other ) const { return degrees_ < other.degrees_; }
   uint32_t hash() const { return static_cast< uint32_t >( degrees_ ); }
   std::string toString() const { return std::to_string( degrees_ ); }
   void appendTo( std::string & out ) const { out += toString(); }
   static bool fromText( std::string_view text, Celsius & out ) {
      if( text.empty() || text.size() > 4 ) return false;
      for( char c : text ) {
         if( c < '0' || c > '9' ) return false;
      }
      out = Celsius( std::stoi( std::string( text ) ) );
      return true;
   }

 private:
   int degrees_ = 0;
};

} // namespace Sample
