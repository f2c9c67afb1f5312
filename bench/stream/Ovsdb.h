// ovsdb-server over a Unix socket: a row an interface, one monitor. Requests are written and
// answers are searched by hand, nothing of them is kept: the figures are the server's own.

#pragma once

#include "bench/stream/Processes.h"

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>

namespace bench {

/// A connection on which JSON texts come one after the other.
class JsonSocket {
 public:
   explicit JsonSocket( const std::string & path ) : fd_( connectTo( path ) ) {}
   void send( const std::string & text ) { writeAll( fd_, text.data(), text.size() ); }
   /// The next text; valid until the next call.
   std::string_view next() {
      buffer_.erase( 0, used_ );
      int depth = 0;
      bool quoted = false;
      for( size_t at = 0;; ++at ) {
         if( at == buffer_.size() ) {
            pollfd wait{ fd_, POLLIN, 0 };
            poll( &wait, 1, -1 );
            char part[65536];
            const ssize_t count = ::read( fd_, part, sizeof part );
            if( count <= 0 ) _exit( 0 );
            buffer_.append( part, size_t( count ) );
         }
         const char c = buffer_[at];
         if( quoted ) {
            if( c == '\\' ) ++at;
            quoted = c != '"';
         } else if( c == '"' ) {
            quoted = true;
         } else if( c == '{' ) {
            ++depth;
         } else if( c == '}' && --depth == 0 ) {
            used_ = at + 1;
            return std::string_view( buffer_ ).substr( 0, used_ );
         }
      }
   }

 private:
   int fd_;
   std::string buffer_;
   size_t used_ = 0;
};

class Ovsdb {
 public:
   static constexpr const char * name = "ovsdb-server";
   static constexpr const char * program = "/usr/sbin/ovsdb-server";

   explicit Ovsdb( size_t records )
      : records_( records ),
        server_( [&] { serve(); }, Place::any ),
        started_( appears( directory_ / "socket" ) ),
        reader_( [&] { read(); } ),
        requests_( directory_ / "socket" ) {
      for( size_t i = 0; i < records_; ) {
         std::string text = transaction();
         for( size_t end = std::min( i + 1000, records_ ); i < end; ++i ) {
            text += R"(,{"op":"insert","table":"Intf","uuid":")" + uuid( i ) +
                    R"(","row":{"intfId":")" + intfName( i ) + R"(","activeAddrWithMask":")" +
                    std::to_string( 0x0a000001 + i ) + R"(/24"}})";
         }
         send( text );
      }
      shared_->go = 1;
      waitFor( shared_->synced );
   }

   double firstSync() const { return double( shared_->synced ) * 1e-9; }
   double updatesASecond( size_t updates ) {
      const uint64_t wanted = shared_->received + updates;
      const uint64_t start = now();
      for( size_t n = 0; n < updates; ) {
         std::string text = transaction();
         for( const size_t end = n + 100; n < end; ++n ) {
            if( next_ == records_ ) {
               next_ = 0;
               ++value_;
            }
            text += update( next_++, value_ );
         }
         send( text );
      }
      while( shared_->received < wanted ) usleep( 100 );
      return double( updates ) / ( double( shared_->arrived - start ) * 1e-9 );
   }
   double hop() {
      const std::string text = transaction() + update( 0, ++value_ ) + end;
      const double spent = hopOf( *shared_, [&] { requests_.send( text ); } );
      requests_.next();
      return spent;
   }

 private:
   static constexpr const char * end = "]}";

   static std::string uuid( size_t i ) {
      char text[40];
      std::snprintf( text, sizeof text, "00000000-0000-4000-8000-%012zx", i );
      return text;
   }
   static std::string transaction() { return R"({"id":1,"method":"transact","params":["Bench")"; }
   static std::string update( size_t i, unsigned value ) {
      return R"(,{"op":"update","table":"Intf","where":[["_uuid","==",["uuid",")" + uuid( i ) +
             R"("]]],"row":{"maxMssEgress":)" + std::to_string( value ) + "}}";
   }
   void send( const std::string & transaction ) {
      requests_.send( transaction + end );
      const std::string_view answer = requests_.next();
      if( answer.find( "\"error\":\"" ) != answer.npos ) {
         std::fprintf( stderr, "%.200s\n", std::string( answer ).c_str() );
         _exit( 2 );
      }
   }
   void serve() {
      const std::string schema = directory_ / "schema", base = directory_ / "base",
                        control = directory_ / "control", remote = "punix:" + directory_ / "socket";
      std::FILE * file = std::fopen( schema.c_str(), "w" );
      std::fputs( R"({"name":"Bench","version":"1.0.0","tables":{"Intf":{"isRoot":true,"columns":{
         "intfId":{"type":"string"},"activeAddrWithMask":{"type":"string"},
         "useVirtualAddr":{"type":"boolean"},"urpf":{"type":"string"},
         "dpRoutingEnabled":{"type":"boolean"},"noArp":{"type":"integer"},
         "maxMssEgress":{"type":"integer"},"maxMssIngress":{"type":"integer"},
         "configSource":{"type":"string"},"addresslessForwarding":{"type":"integer"},
         "directedBroadcastEnabled":{"type":"boolean"},"attachedRoutes":{"type":"boolean"},
         "unnumberedIntfId":{"type":"string"}}}}})",
                  file );
      std::fclose( file );
      if( std::system( ( "ovsdb-tool create " + base + " " + schema ).c_str() ) != 0 ) _exit( 2 );
      execl( program, program, ( "--remote=" + remote ).c_str(), ( "--unixctl=" + control ).c_str(),
             "-vconsole:off", base.c_str(), nullptr );
   }

   // -- The reader
   void read() {
      waitFor( shared_->go );
      const uint64_t start = now();
      JsonSocket socket( directory_ / "socket" );
      socket.send( R"({"id":2,"method":"monitor","params":["Bench",null,{"Intf":{}}]})" );
      socket.next();
      shared_->synced = now() - start;
      for( ;; ) {
         const std::string_view message = socket.next();
         uint64_t rows = 0;
         for( size_t at = 0; ( at = message.find( "\"new\":", at ) ) != message.npos; at += 6 ) {
            ++rows;
         }
         if( !rows ) { // an inquiry whether we are alive
            socket.send( R"({"id":"echo","result":[],"error":null})" );
            continue;
         }
         shared_->arrived.store( now(), std::memory_order_release );
         shared_->received += rows;
      }
   }

   size_t records_;
   Directory directory_;
   Shared * shared_ = Shared::make();
   Child server_;
   bool started_;
   Child reader_;
   JsonSocket requests_;
   size_t next_ = 0;
   unsigned value_ = 1;
};

} // namespace bench
