#include "typelang/Lexer.h"

namespace Zek::TypeLang {

namespace {

bool
isDigit( char c ) {
   return c >= '0' && c <= '9';
}

bool
isLetter( char c ) {
   return ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || c == '_';
}

class Lexer {
 public:
   Lexer( const SourceFile & file, Errors & errors )
      : file_( file ),
        errors_( errors ),
        text_( file.text ) {}

   std::vector< Token > run() {
      for( size_t i = 0; i < text_.size(); ++i ) {
         unsigned char c = static_cast< unsigned char >( text_[i] );
         bool endOfLine =
            c == '\n' || ( c == '\r' && i + 1 < text_.size() && text_[i + 1] == '\n' );
         if( ( c < ' ' && c != '\t' && !endOfLine ) || c == 127 ) {
            at_ = i + 1;
            errors_.error( span( i ), "a schema is text, without control characters" );
            at_ = text_.size();
         }
         if( at_ != 0 ) break;
      }
      while( at_ < text_.size() ) next();
      add( TokenKind::end, at_, "" );
      return std::move( tokens_ );
   }

 private:
   char peek( size_t ahead = 0 ) const {
      return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0';
   }
   Span span( size_t from ) const {
      return { &file_, static_cast< uint32_t >( from ), static_cast< uint32_t >( at_ ) };
   }
   void add( TokenKind kind, size_t from, std::string text ) {
      tokens_.push_back(
         { kind, std::move( text ), span( from ), startsLine_, std::move( doc_ ) } );
      doc_.clear();
      startsLine_ = false;
   }

   void next() {
      char c = peek();
      if( c == '\n' ) {
         startsLine_ = true;
         ++at_;
      } else if( c == ' ' || c == '\t' || c == '\r' ) {
         ++at_;
      } else if( c == '/' && peek( 1 ) == '/' ) {
         comment();
      } else if( isLetter( c ) ) {
         name();
      } else if( isDigit( c ) || ( c == '-' && isDigit( peek( 1 ) ) ) ) {
         number();
      } else if( c == '"' ) {
         string();
      } else {
         symbol();
      }
   }

   void comment() {
      size_t end = text_.find( '\n', at_ );
      if( end == std::string::npos ) end = text_.size();
      std::string line = text_.substr( at_, end - at_ );
      if( line.compare( 0, 3, "///" ) == 0 && startsLine_ ) {
         line.erase( 0, line.size() > 3 && line[3] == ' ' ? 4 : 3 );
         while( !line.empty() && ( line.back() == ' ' || line.back() == '\r' ) ) line.pop_back();
         if( !line.empty() && line.back() == '\\' ) {
            // In C++ it would swallow the line after the comment.
            errors_.error(
               { &file_, static_cast< uint32_t >( at_ ), static_cast< uint32_t >( end ) },
               "a line of documentation does not end in a backslash" );
         }
         if( !doc_.empty() ) doc_ += '\n';
         doc_ += line;
      }
      at_ = end;
   }

   void name() {
      size_t from = at_;
      while( isLetter( peek() ) || isDigit( peek() ) ||
             ( peek() == '.' && isLetter( peek( 1 ) ) ) ) {
         ++at_;
      }
      add( TokenKind::name, from, text_.substr( from, at_ - from ) );
   }

   void number() {
      size_t from = at_++;
      while( isDigit( peek() ) || isLetter( peek() ) ||
             ( peek() == '.' && isDigit( peek( 1 ) ) ) ) {
         ++at_;
      }
      add( TokenKind::number, from, text_.substr( from, at_ - from ) );
   }

   void string() {
      size_t from = at_++;
      std::string contents;
      while( at_ < text_.size() && peek() != '"' && peek() != '\n' ) {
         if( peek() == '\\' && ( peek( 1 ) == '"' || peek( 1 ) == '\\' ) ) ++at_;
         contents += text_[at_++];
      }
      if( peek() == '"' ) {
         ++at_;
      } else {
         errors_.error( span( from ), "this string has no end on its line" );
      }
      add( TokenKind::string, from, contents );
   }

   void symbol() {
      size_t from = at_;
      for( const char * two : { "->", "+=" } ) {
         if( text_.compare( at_, 2, two ) == 0 ) {
            at_ += 2;
            add( TokenKind::symbol, from, two );
            return;
         }
      }
      char c = text_[at_++];
      if( std::string( "{}()=,:&/" ).find( c ) == std::string::npos ) {
         errors_.error( span( from ), std::string( "unexpected character '" ) +
                                         ( c >= ' ' && c < 127 ? std::string( 1, c ) : "?" ) +
                                         "'" );
         return;
      }
      add( TokenKind::symbol, from, std::string( 1, c ) );
   }

   const SourceFile & file_;
   Errors & errors_;
   const std::string & text_;
   size_t at_ = 0;
   bool startsLine_ = true;
   std::string doc_;
   std::vector< Token > tokens_;
};

} // namespace

std::vector< Token >
lex( const SourceFile & file, Errors & errors ) {
   return Lexer( file, errors ).run();
}

} // namespace Zek::TypeLang
