// Schema files and what is wrong with them.

#pragma once

#include "typelang/Ast.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Zek::TypeLang {

/// One schema file, held as long as the Program that was made of it.
struct SourceFile {
   std::string path; // as it stands in messages
   std::string text;

   /// Both count from 1; columns count bytes.
   struct Position {
      uint32_t line;
      uint32_t column;
   };
   Position position( uint32_t offset ) const;
   /// The line around `offset`, without its end.
   std::string_view lineAt( uint32_t offset ) const;
};

/// Collects errors from every stage, in the order found.
class Errors {
 public:
   void error( const Span & where, const std::string & message );
   bool empty() const { return count_ == 0; }
   size_t count() const { return count_; }
   /// All messages: "path:line:column: error: message", the line, and a caret under the span.
   const std::string & text() const { return text_; }

 private:
   std::string text_;
   size_t count_ = 0;
};

} // namespace Zek::TypeLang
