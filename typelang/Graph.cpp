#include "typelang/Graph.h"

#include "typelang/Explain.h"
#include "typelang/Text.h"

#include <map>

namespace Zek::TypeLang {

namespace {

bool
isDrawn( const Type & type ) {
   if( type.isCounted() ) return true;
   for( const Member & m : type.members ) {
      if( m.kind == MemberKind::attr && m.type.type->isCounted() ) return true;
   }
   return false;
}

std::string
node( const Type & type, const std::string & model ) {
   const char * look = type.kind == TypeKind::machine ? "shape=component, color=blue"
                       : type.kind == TypeKind::view  ? "style=dashed"
                       : type.kind == TypeKind::value ? "shape=note"
                       : type.isForeign()             ? "style=dotted"
                       : type.isEntity                ? "style=solid"
                                                      : "style=rounded";
   return quoted( type.fullName() ) +
          " [label=" + quoted( type.dottedName().substr( model.size() + 1 ) ) + ", " + look +
          "];\n";
}

/// From `type`; nothing for a line that holds no counted type.
std::string
edge( const Type & type, const std::string & label, const Type & to, const char * look ) {
   return "   " + quoted( type.fullName() ) + " -> " + quoted( to.fullName() ) + " [" +
          ( label.empty() ? "" : "label=" + quoted( label ) + ", " ) + look + "];\n";
}

std::string
edges( const Type & type ) {
   constexpr const char * points = "style=dashed, arrowhead=vee";
   std::string out;
   if( type.base ) out += edge( type, "", *type.base.type, "arrowhead=empty" );
   if( type.holds ) out += edge( type, type.holdsName, *type.holds.type, points );
   for( const Member & m : type.members ) {
      if( !m.type || !m.type.type->isCounted() ) continue;
      const bool operates =
         m.kind == MemberKind::call || m.kind == MemberKind::ask || m.kind == MemberKind::derived;
      if( operates ) continue;
      const char * look = m.form == CollectionForm::owning ? "style=bold, dir=both, "
                                                             "arrowtail=diamond"
                          : m.kind == MemberKind::reactor  ? "color=blue, arrowhead=vee"
                                                           : points;
      out += edge( type, m.name, *m.type.type, look );
   }
   return out;
}

} // namespace

std::string
graphText( const Program & program ) {
   std::map< std::string, std::string > clusters; // by model
   std::string arrows;
   for( const Type * type : declaredTypes( program ) ) {
      if( !isDrawn( *type ) ) continue;
      const std::string model = joined( type->schema->model, "." );
      clusters[model] += "      " + node( *type, model );
      arrows += edges( *type );
   }
   std::string out =
      "digraph types {\n   rankdir=LR;\n   node [shape=box, fontname=\"sans-serif\"];\n"
      "   edge [fontname=\"sans-serif\", fontsize=10];\n";
   for( const auto & [model, nodes] : clusters ) {
      out += "   subgraph " + quoted( "cluster_" + model ) + " {\n      label=" + quoted( model ) +
             ";\n" + nodes + "   }\n";
   }
   return out + arrows + "}\n";
}

} // namespace Zek::TypeLang
