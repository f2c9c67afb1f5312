// One end of a connection and the tree it keeps current, given the records of a peer that may
// send anything: for the fuzzer of streams and for tests.
//
// An input is a setup of three bytes, then pieces with a mark of four bytes between them. A piece
// is a byte of Steps and a record without its length, checks and tokens: those are made right, so
// that a changed record is not refused by its checks already.

#pragma once

#include "framework/Entity.h"
#include "platform/Kelmo/Session.h"
#include "tests/stream/Trees.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ipstate::test {

constexpr std::string_view mark = "\xf7\x1e\x5a\xc3";

/// The first bytes of an input: what there is before the first record.
struct Setup {
   enum Flag : uint8_t {
      owner = 1,     // serves a tree that the peer may write; else has mounted the peer's
      writes = 2,    // has mounted it for writing
      filled = 4,    // had the tree already
      throws = 8,    // what watches throws now and then
      reacts = 16,   // and changes things now and then
      twice = 32,    // has a second mount
      recovers = 64, // in the end, an honest peer takes the place of the other
      narrow = 128   // has mounted a child, which refers to what is outside; else the directory
   };
   static constexpr size_t size = 3;
   uint8_t flags = 0;
   uint8_t type = 0; // of the child beside those that others refer to
   uint8_t seed = 0; // of what fills the tree

   bool is( Flag flag ) const { return flags & flag; }
   std::string bytes() const { return { char( flags ), char( type ), char( seed ) }; }
   static Setup of( std::string_view input );
};

/// The first byte of a piece.
enum Step : uint8_t {
   isRaw = 2,   // the bytes are given as they are
   isSplit = 4, // arrives in two parts
   waits = 8,   // arrives together with the next one
   // One of these comes first.
   change = 0x10,    // something changes here
   carry = 0x20,     // the peer takes what was written
   reconnect = 0x30, // the connection is lost and made again
   stall = 0x40,     // the peer reads no more, or does again
};

/// The records of a stream as pieces.
std::vector< std::string > piecesOf( std::string_view stream );
/// The bytes that carry a piece as the record of that number.
std::string frameOf( std::string_view piece, uint64_t number );
/// Makes the length, unless another is given, and the checks of a record's bytes right.
void correct( std::string & frame, uint64_t number, size_t length = 0 );
/// An input in parts: the setup's bytes, then the pieces.
std::vector< std::string > split( std::string_view input );
std::string joined( const std::vector< std::string > & parts );

class FuzzWorld final : public Kelmo::SessionOwner {
 public:
   explicit FuzzWorld( Setup setup );
   ~FuzzWorld() override;

   Zek::Dir::Ptr tree() const { return tree_; }
   Kelmo::Session & session() { return *session_; }
   Random & random() { return random_; }

   /// Changes something in what is streamed.
   void change();
   /// Applies a piece. What is no stream ends the connection, with a text that says where; a new
   /// one is made.
   void take( std::string_view piece );
   /// All there is, read everywhere.
   std::string text() const;
   /// Loses the connection and follows an honest peer instead; both trees are the same then.
   void recover();

 private:
   class Watcher;
   void fill( Zek::Dir & tree, uint64_t seed ) const;
   void mount();
   void connect();
   void receive( std::string_view bytes );
   void watch( const Zek::Entity & entity );

   Setup setup_;
   Random random_;
   Zek::Dir::Ptr tree_ = Zek::dirFactory();
   std::unique_ptr< Kelmo::Session > session_;
   std::vector< std::unique_ptr< Watcher > > watchers_;
   std::string waiting_; // to arrive with the next piece
   uint64_t waits_ = 0;  // records of it
   uint32_t reactions_ = 0;
   size_t taken_ = 0;
   bool stalled_ = false;
};

/// What an honest peer says to a world of this setup, and then of some changes.
std::string recorded( Setup setup, unsigned changes );

/// Objects alive, by type.
std::map< std::string, uint64_t > liveObjects();

} // namespace ipstate::test
