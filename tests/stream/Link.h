// A connection of two trees over simulated pipes: their capacity moves, they stall, split what
// goes through, corrupt it, and are cut.

#pragma once

#include "platform/Kelmo/Session.h"
#include "tests/stream/RandomValues.h"
#include "tests/stream/Situations.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ipstate::test {

/// Bytes on their way in one direction.
class Pipe {
 public:
   size_t capacity = 65536;
   bool stalled = false;

   size_t size() const { return bytes_.size() - head_; }
   void fill( Kelmo::Session & from, size_t most );
   /// Takes up to `most` bytes out.
   std::string take( size_t most, Situations & situations );
   void corrupt( Random & random );
   /// Of the record that is partly through.
   size_t inside() const { return inside_; }
   size_t length() const { return length_; }
   void clear();

 private:
   std::string bytes_;
   size_t head_ = 0;
   size_t inside_ = 0;
   size_t length_ = 0;
   uint8_t header_[Zek::NboAttrLog::FrameHeader::size];
};

class Link final : public Kelmo::SessionOwner {
 public:
   Link( uint32_t from, uint32_t to, Situations & situations )
      : source( from ),
        copy( to ),
        situations_( situations ) {}

   const uint32_t source; // numbers of the trees
   const uint32_t copy;
   std::vector< Kelmo::Mount > mounts; // of the client's
   std::unique_ptr< Kelmo::Session > server;
   std::unique_ptr< Kelmo::Session > client;
   Pipe down; // from server to client
   Pipe up;
   size_t capacity = 64 << 10; // of both ends' output
   bool corrupted = false;
   std::string problem;
   /// Called from whatever the sessions tell; may cut, connect, and make either session anew.
   std::function< void( Link & ) > toldOf;

   void serve( const Zek::Dir::Ptr & tree );
   void follow( const Zek::Dir::Ptr & tree );
   bool isConnected() const { return connected_; }
   void connect();
   void cut();
   /// Moves some bytes of each pipe, or all of them. True when anything may move still.
   bool pump( Random & random, bool all );
   /// Opens the pipes wide and connects.
   void open();
   bool isAtRest() const { return server->isAtRest() && client->isAtRest(); }

 private:
   void onMountRefused( const Kelmo::Mount & mount, const std::string & why ) override;
   void onSynchronised() override { told(); }
   void onOutput() override { told(); }
   bool allows( const Kelmo::Mount &, std::string & ) override {
      told();
      return true;
   }
   void told() {
      if( toldOf ) toldOf( *this );
   }
   bool pumpSome( Random & random, bool all );
   void failed( std::string_view what );
   void empty( Kelmo::Session & to, Pipe & pipe, size_t most );

   Situations & situations_;
   bool connected_ = false;
   uint32_t connections_ = 0;
};

} // namespace ipstate::test
