// Zek::String: the value type of string attributes.
//
// One pointer wide. Copies share one immutable text; the empty string holds nothing and allocates
// nothing. Strings are bytes: zero bytes and bad UTF-8 are kept as they are. Compares and orders
// by bytes.
//
// Threads: one String object belongs to one thread. The count of the shared text follows
// VFPtrInterface::threadSafePointers_, so that copies may live on other threads once it is set.

#pragma once

#include "framework/Export.h"
#include "framework/Interner.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

namespace Zek {

class IPSTATE_EXPORT String {
 public:
   class IteratorConst;

   constexpr String() noexcept = default;
   /// Null counts as empty.
   String( const char * text );
   String( std::string_view text );
   String( const std::string & text ) : String( std::string_view( text ) ) {}
   /// The bytes from `begin` up to `end`.
   String( IteratorConst begin, IteratorConst end );
   String( const String & other ) noexcept : rep_( other.rep_ ) {
      if( rep_ ) acquire();
   }
   String( String && other ) noexcept : rep_( std::exchange( other.rep_, nullptr ) ) {}
   ~String() {
      if( rep_ ) release();
   }
   String & operator=( const String & other ) noexcept {
      String copy( other );
      std::swap( rep_, copy.rep_ );
      return *this;
   }
   String & operator=( String && other ) noexcept {
      String taken( std::move( other ) );
      std::swap( rep_, taken.rep_ );
      return *this;
   }

   /// Never null; a zero byte follows the last one. Like view() and the iterators valid until
   /// this String is changed or destroyed (a copy keeps the bytes alive).
   const char * charPtr() const { return rep_ ? rep_->text() : noText_; }
   size_t size() const { return rep_ ? rep_->size : 0; }
   bool empty() const { return !rep_; }
   explicit operator bool() const { return rep_ != nullptr; }
   std::string_view view() const { return { charPtr(), size() }; }
   inline IteratorConst begin() const;
   inline IteratorConst end() const;

   /// Appends in place when nobody shares the text and its room is enough.
   String & operator+=( std::string_view text );
   String & operator+=( const String & text ) { return *this += text.view(); }
   String & operator+=( const std::string & text ) { return *this += std::string_view( text ); }
   String & operator+=( const char * text ) { return *this += String( text ); }
   String & operator+=( char c ) { return *this += std::string_view( &c, 1 ); }
   friend String operator+( String a, const String & b ) {
      a += b.view();
      return a;
   }

   friend bool operator==( const String & a, const String & b ) {
      return a.rep_ == b.rep_ || a.view() == b.view();
   }
   friend std::strong_ordering operator<=>( const String & a, const String & b ) {
      return a.view() <=> b.view();
   }
   template< class T >
   requires std::convertible_to< const T &, std::string_view >
   friend bool operator==( const String & a, const T & b ) {
      return a.view() == std::string_view( b );
   }

   uint32_t hash() const { return textHash( view() ); }

   /// The bytes as they are.
   void appendTo( std::string & out ) const { out.append( view() ); }
   std::string toString() const { return std::string( view() ); }
   /// Any text reads back as itself.
   static bool fromText( std::string_view text, String & out ) {
      out = String( text );
      return true;
   }

 private:
   // The count is changed as an atomic or by plain loads and stores, by the switch. `capacity`
   // bytes and a final zero byte follow in place.
   struct Rep {
      uint32_t count;
      uint32_t size;
      uint32_t capacity;
      char * text() { return reinterpret_cast< char * >( this + 1 ); }
   };
   static Rep * make( size_t size, size_t capacity );
   void acquire() const noexcept;
   void release() noexcept;

   // The text of the empty string. One object, not a literal in each inlined copy: begin() and
   // end() must agree wherever they were compiled.
   static constexpr char noText_[1] = {};

   Rep * rep_ = nullptr;
};

/// Walks the bytes of a String. Holds no reference: valid as long as the String it is from is
/// neither changed nor destroyed.
class String::IteratorConst {
 public:
   using iterator_category = std::random_access_iterator_tag;
   using value_type = char;
   using difference_type = ptrdiff_t;
   using pointer = const char *;
   using reference = const char &;

   constexpr IteratorConst() = default;
   constexpr explicit IteratorConst( const char * at ) : at_( at ) {}

   /// Address of the byte stood on.
   constexpr const char * charPtr() const { return at_; }
   constexpr const char & operator*() const { return *at_; }
   constexpr const char & operator[]( ptrdiff_t n ) const { return at_[n]; }
   constexpr IteratorConst & operator++() {
      ++at_;
      return *this;
   }
   constexpr IteratorConst operator++( int ) { return IteratorConst( at_++ ); }
   constexpr IteratorConst & operator--() {
      --at_;
      return *this;
   }
   constexpr IteratorConst operator--( int ) { return IteratorConst( at_-- ); }
   constexpr IteratorConst & operator+=( ptrdiff_t n ) {
      at_ += n;
      return *this;
   }
   constexpr IteratorConst & operator-=( ptrdiff_t n ) { return *this += -n; }
   friend constexpr IteratorConst operator+( IteratorConst a, ptrdiff_t n ) { return a += n; }
   friend constexpr IteratorConst operator+( ptrdiff_t n, IteratorConst a ) { return a += n; }
   friend constexpr IteratorConst operator-( IteratorConst a, ptrdiff_t n ) { return a -= n; }
   friend constexpr ptrdiff_t operator-( IteratorConst a, IteratorConst b ) {
      return a.at_ - b.at_;
   }
   friend constexpr auto operator<=>( IteratorConst, IteratorConst ) = default;

   /// The bytes from `begin` up to `end`, as a reader of text wants them.
   static std::string_view view( IteratorConst begin, IteratorConst end ) {
      return { begin.at_, static_cast< size_t >( end - begin ) };
   }

 private:
   const char * at_ = nullptr;
};

inline String::IteratorConst
String::begin() const {
   return IteratorConst( charPtr() );
}

inline String::IteratorConst
String::end() const {
   return IteratorConst( charPtr() + size() );
}

IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const String & text );

} // namespace Zek
