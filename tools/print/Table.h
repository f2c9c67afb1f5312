// Columns for people.

#pragma once

#include "tools/print/Json.h"
#include "tools/print/Style.h"

#include <string>
#include <vector>

namespace Print {

class Table {
 public:
   using Row = std::vector< std::string >;

   explicit Table( Row headings ) : headings_( std::move( headings ) ) {}
   /// A row of as many cells; what is not printable is escaped.
   void add( Row cells );
   bool empty() const { return rows_.empty(); }
   /// Columns as wide as their widest cell, no blanks at the end of a line.
   std::string text( const Style & style ) const;

 private:
   Row headings_;
   std::vector< Row > rows_;
};

/// A row for each of the records: its key or name, then the attributes of `extent`, else those in
/// which one of them differs from a fresh record of its type.
Table tableOf( const std::vector< Zek::Inspect::Place > & records, const Extent & extent );

/// An attribute in one cell: of a collection its keys, with their values.
std::string cellOf( const Zek::PtrInterface & record, const Zek::AttributeRow & row );
/// A value or collection in one line.
std::string cellOf( const Zek::Inspect::Place & place );

} // namespace Print
