// What makes a type's changes travel: its adaptor, with the names that are its own. All of them are
// thin: the work is done over the rows (framework/attrlog/AttrLog.h).

#include "typelang/Emission.h"
#include "typelang/Text.h"

namespace Zek::TypeLang {

bool
isStreamed( const Type & type ) {
   return type.kind == TypeKind::entity && type.hasNotifier && type.hasLog;
}

std::string
relayClass( const Type & type ) {
   return isStreamed( type ) ? type.name + "::ZekNboAttrLogSa::ZekNboAttrLogSaAdapter_"
                             : genericId( type ) + "_Relay";
}

namespace {

bool
isStoredAttribute( const Member & m ) {
   return m.kind == MemberKind::attr || m.kind == MemberKind::counter;
}

/// Operations for all plain attributes at once, where none of them is a pointer.
std::string
stateOf( const Type & type ) {
   std::vector< std::string > attributes;
   for( const Member & m : type.members ) {
      if( !isStoredAttribute( m ) ) continue;
      if( m.type.type->isCounted() ) return {};
      attributes.push_back( fill(
         "      Zek::Rows::Attribute< &$Self$::$x$_, $mutator$, $n$ >",
         { { "Self", type.name },
           { "x", m.name },
           { "mutator", m.bound.empty() ? "nullptr" : "&" + type.name + "::" + m.name + "Is" },
           { "n", std::to_string( m.number ) } } ) );
   }
   if( attributes.empty() ) return {};
   return "   .state = &Zek::Rows::stateOf<\n" + joined( attributes, ",\n" ) + " >,\n";
}

} // namespace

AttrLogPieces
attrLog( const Type & type ) {
   AttrLogPieces out;
   if( !isStreamed( type ) || type.base ) return out;
   out.state = stateOf( type );
   std::string serialisers, dirty;
   for( const Member & m : type.members ) {
      const bool isCollection = m.kind == MemberKind::collection;
      if( !isCollection && !isStoredAttribute( m ) ) continue;
      Holes h{ { "X", capitalised( m.name ) }, { "n", std::to_string( m.number ) } };
      serialisers += fill(
         isCollection ? "   bool zekHandle$X$SerializeColl() { return serializeIfDirty( $n$ ); }\n"
                      : "   bool zekHandle$X$Serialize() { return serializeIfDirty( $n$ ); }\n",
         h );
      if( !isCollection ) continue;
      h["K"] = cppStored( m.keyType );
      dirty += fill( R"(      // $n$
      using ZekZekIs$X$Dirty = Zek::NboAttrLog::DirtyKeysOf< $K$ >;
      ZekZekIs$X$Dirty zekIs$X$Dirty() const {
         return ZekZekIs$X$Dirty( dirtyKeys( $n$ ) );
      }
      void zekIs$X$DirtyIs( const $K$ & key, bool dirty ) {
         zekKeyDirtyIs( $n$, &key, dirty );
      }
      void zekIs$X$DirtyDel( const $K$ & key ) { zekKeyDirtyDel( $n$, &key ); }
)",
                     h );
   }
   if( !serialisers.empty() ) {
      serialisers.insert( 0, R"(
   // Each writes the attribute, or what its collection has dirty, if it is; false when the
   // stream's room was used up.
)" );
   }
   Holes h{ { "Self", type.name },
            { "full", type.fullName() },
            { "serialisers", serialisers },
            { "dirty", dirty } };
   out.forward =
      fill( "   /// Streams its changes to other processes.\n   class ZekNboAttrLogSa;\n\n", h );
   out.declaration = fill( R"(/// Streams $full$ (framework/attrlog/AttrLog.h).
class IPSTATE_EXPORT $Self$::ZekNboAttrLogSa final : public Zek::Entity::ZekNboAttrLogSa {
 public:
   /// Forwards every change by number.
   class ZekNboAttrLogSaAdapter_;
   /// What is still to be sent.
   class IPSTATE_EXPORT FlowOut final : public Zek::NboAttrLog::FlowOut {
    public:
      using Zek::NboAttrLog::FlowOut::FlowOut;
      ~FlowOut() override;
$dirty$
   };
   using Zek::Entity::ZekNboAttrLogSa::ZekNboAttrLogSa;

   $Self$ * entity() const;
   /// Null before the first need of it.
   FlowOut * flowOut() const;
$serialisers$

 protected:
   ~ZekNboAttrLogSa() override;
   std::unique_ptr< Zek::NboAttrLog::FlowOut > createFlowOut( uint32_t id, uint32_t first,
                                                              uint32_t last ) override;
};
)",
                           h );
   out.definition = fill( R"($Self$::ZekNboAttrLogSa::FlowOut::~FlowOut() = default;
$Self$::ZekNboAttrLogSa::~ZekNboAttrLogSa() = default;

$Self$ *
$Self$::ZekNboAttrLogSa::entity() const {
   return static_cast< $Self$ * >( Zek::Entity::ZekNboAttrLogSa::entity() );
}

$Self$::ZekNboAttrLogSa::FlowOut *
$Self$::ZekNboAttrLogSa::flowOut() const {
   return static_cast< FlowOut * >( Zek::Entity::ZekNboAttrLogSa::flowOut() );
}

std::unique_ptr< Zek::NboAttrLog::FlowOut >
$Self$::ZekNboAttrLogSa::createFlowOut( uint32_t id, uint32_t first, uint32_t last ) {
   return std::make_unique< FlowOut >( *this, id, first, last );
}

)",
                          h );
   return out;
}

} // namespace Zek::TypeLang
