#include "agents/ipstated/Output.h"

#include <cerrno>
#include <signal.h>
#include <system_error>

namespace Ipstated {

Output::Output( int fd ) : outlet_( fd ) {
   signal( SIGPIPE, SIG_IGN ); // a broken pipe is seen where it is written to
}

void
Output::check() const {
   if( error_ ) {
      throw std::system_error( error_, std::generic_category(), "cannot write the output" );
   }
}

void
Output::write( std::string_view text ) {
   if( open_ ) bytes_ += text;
}

void
Output::change( const Change & change ) {
   if( !open_ ) return;
   if( waiting_.empty() && bytes_.size() - written_ >= mostBytes ) flush();
   if( waiting_.empty() && bytes_.size() - written_ < mostBytes ) {
      bytes_ += change.line() + "\n";
      return;
   }
   auto [known, isNew] = byWhat_.try_emplace( change.what );
   if( isNew ) {
      known->second = waiting_.insert( waiting_.end(), change );
      return;
   }
   ++merged_;
   known->second->now = change.now;
   if( known->second->before == change.now ) {
      waiting_.erase( known->second );
      byWhat_.erase( known );
   }
}

void
Output::flush() {
   while( open_ && isWaiting() ) {
      refill();
      const std::string_view left = std::string_view( bytes_ ).substr( written_ );
      const ssize_t taken = left.empty() ? 0 : outlet_.write( left );
      if( taken < 0 ) {
         if( errno != EPIPE ) error_ = errno; // else as head(1) does when it has enough
         close();
      }
      if( taken <= 0 ) return;
      written_ += size_t( taken );
      if( written_ == bytes_.size() || written_ >= mostBytes ) {
         bytes_.erase( 0, written_ );
         written_ = 0;
      }
   }
}

/// Takes changes that wait into the bytes, as far as these have room.
void
Output::refill() {
   while( !waiting_.empty() && bytes_.size() - written_ < mostBytes ) {
      bytes_ += waiting_.front().line() + "\n";
      byWhat_.erase( waiting_.front().what );
      waiting_.pop_front();
   }
   if( waiting_.empty() && merged_ > mergedTold_ ) {
      bytes_ += "merged  " + std::to_string( merged_ - mergedTold_ ) +
                " changes that came while nobody read this\n";
      mergedTold_ = merged_;
   }
}

} // namespace Ipstated
