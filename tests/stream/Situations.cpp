#include "tests/stream/Situations.h"

namespace ipstate::test {

using namespace Zek::NboAttrLog;

namespace {

constexpr const char * names[] = {
#define IPSTATE_SITUATION( name, text ) text,
   IPSTATE_SITUATIONS( IPSTATE_SITUATION )
#undef IPSTATE_SITUATION
};

Situation
after( Situation first, size_t n ) {
   return static_cast< Situation >( static_cast< size_t >( first ) + n );
}

} // namespace

std::string
Situations::missing() const {
   std::string found;
   for( size_t i = 0; i < counts_.size(); ++i ) {
      if( !counts_[i] ) found += std::string( names[i] ) + "\n";
   }
   return found;
}

std::string
Situations::text() const {
   std::string all;
   for( size_t i = 0; i < counts_.size(); ++i ) {
      all += std::to_string( counts_[i] ) + " " + names[i] + "\n";
   }
   return all;
}

void
Situations::record( const FrameHeader & header ) {
   if( header.flow == 0 ) {
      if( header.attribute == againControl ) reached( Situation::againRecord );
      if( header.attribute == bindControl ) reached( Situation::bindRecord );
      if( header.attribute == noRootControl ) reached( Situation::noRootRecord );
   } else if( header.kind <= Kind::state ) {
      reached( after( Situation::valueRecord, static_cast< size_t >( header.kind ) ) );
   }
}

void
Situations::cut( size_t inside, size_t length ) {
   static constexpr size_t ends[] = { 0, 4, 8, 10, 11, 15, 19, 21 }; // of the fields
   for( size_t field = 0; field < std::size( ends ); ++field ) {
      if( inside <= ends[field] ) {
         reached( after( Situation::cutAtBorder, field ) );
         return;
      }
   }
   reached( inside + 1 == length ? Situation::cutBeforeEnd : Situation::cutInBody );
}

} // namespace ipstate::test
