// How a schema is laid out.

#pragma once

#include <string>
#include <string_view>

namespace Zek::TypeLang {

/// The schema's text as people lay it out: three columns a level, word, name and the rest of the
/// lines of a type below each other, the arrows of a reactor too, at most one empty line. What
/// stands on which line stays, as do comments; errors in the text do not matter. Formatting twice
/// changes nothing more.
std::string formatted( std::string_view text );

} // namespace Zek::TypeLang
