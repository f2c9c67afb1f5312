// Reactors of a state machine: one nested class per input, a single one or a keyed collection.

#include "typelang/EmitCounted.h"
#include "typelang/Text.h"

namespace Zek::TypeLang {

namespace {

bool
uses( const Reaction & reaction, Action::Kind kind ) {
   for( const Action & action : reaction.actions ) {
      if( action.kind == kind ) return true;
   }
   return false;
}

// A handler's call. `key` names the changed member's key, or is empty.
std::string
handlerCall( const Action & action, const std::string & key ) {
   // The checker chose a handler that takes what there is: the reactor's key, the changed
   // member's, or both in this order.
   std::vector< std::string > arguments;
   size_t takes = action.handler->arguments.size();
   if( takes == 2 || ( takes == 1 && key.empty() ) ) arguments.push_back( "fwkKey()" );
   if( takes >= 1 && !key.empty() ) arguments.push_back( key );
   std::string on = action.kind == Action::Kind::owner ? "machine->" : "";
   return "   " + call( on + action.target, arguments, ";\n", 3 );
}

// Statements of a reaction. Those that feed a collection are steps of their own: they run whatever
// the handlers before them throw. Between two the reactor must still be live.
class Steps {
 public:
   void handler( const std::string & statement ) {
      if( steps_.empty() || steps_.back().feeds ) steps_.push_back( {} );
      std::string & text = steps_.back().text;
      if( !text.empty() ) text += "   if( !live() ) return;\n";
      text += statement;
   }
   void feed( const std::string & statements ) { steps_.push_back( { statements, true } ); }
   std::string text() const {
      if( steps_.empty() ) return "";
      if( steps_.size() == 1 ) return steps_.front().text;
      std::string out;
      for( const Step & step : steps_ ) {
         const bool oneLine = step.text.find( '\n' ) == step.text.size() - 1;
         out += ( out.empty() ? "   zekInAnyCase(\n" : ",\n" ) + std::string( "      [&] {" ) +
                ( oneLine ? step.text.substr( 2, step.text.size() - 3 ) + " }"
                          : "\n" + indented( step.text, 6 ) + "      }" );
      }
      return out + " );\n";
   }

 private:
   struct Step {
      std::string text;
      bool feeds = false;
   };
   std::vector< Step > steps_;
};

// What a reaction's statements use: machine and input outlive them. A reactor's own handlers hold
// what they go on using after an announcement.
std::string
opening( const Holes & h, const Reaction & reaction ) {
   std::string out;
   if( uses( reaction, Action::Kind::owner ) || uses( reaction, Action::Kind::feed ) ) {
      out += fill( "   const Zek::Ptr< $Machine$ > machine = owner();\n", h );
   }
   if( uses( reaction, Action::Kind::feed ) ) out += "   const auto input = notifier();\n";
   return out;
}

// The callbacks of one reaction. Each asks whether the reactor lives and calls a forwarder, which
// has a name to break on.
struct Callbacks {
   std::string declaration;
   std::string definition;
};

Callbacks
callbacksOf( const Reaction & reaction, Holes h ) {
   const Member & watched = *reaction.watched;
   const bool keyed = watched.kind == MemberKind::collection;
   h["A"] = capitalised( watched.name );
   h["w"] = watched.name;
   h["K"] = keyed ? cppStored( watched.keyType ) : "";
   h["taken"] = keyed ? fill( " const $K$ & key ", h ) : "";
   h["given"] = keyed ? " key " : "";
   h["opening"] = opening( h, reaction );
   Steps steps;
   Callbacks out;
   for( const Action & action : reaction.actions ) {
      if( action.kind != Action::Kind::feed ) {
         steps.handler( handlerCall( action, keyed ? "key" : "" ) );
         continue;
      }
      h["c"] = action.target;
      steps.feed( fill( R"(   if( const auto member = input->$w$( key ) ) {
      machine->$c$Is( member );
   } else {
      machine->$c$Del( key );
   }
)",
                        h ) );
      out.declaration += fill( R"(      void on$A$zekImmediate() override {
         if( live() ) zek_handle$X$_$w$();
      }
      void zek_handle$X$_$w$();
)",
                               h );
      out.definition += fill( R"(void
$Class$::zek_handle$X$_$w$() {
   const Zek::Ptr< $Machine$ > machine = owner();
   const auto input = notifier();
   zekFeedAll(
      input->$w$IteratorConst(),
      [&]( auto & key ) { machine->$c$Is( input->$w$( key ) ); },
      [&] { return machine->$c$IteratorConst(); },
      [&]( auto & key ) {
         if( !input->$w$Has( key ) ) machine->$c$Del( key );
      } );
}

)",
                              h );
   }
   h["steps"] = steps.text();
   out.declaration.insert( 0, fill( R"(      void on$A$($taken$) override {
         if( live() ) zek_handle$X$_$w$($given$);
      }
      void zek_handle$X$_$w$($taken$);
)",
                                    h ) );
   out.definition.insert( 0, fill( R"(void
$Class$::zek_handle$X$_$w$($taken$) {
$opening$
$steps$
}

)",
                                   h ) );
   return out;
}

// The body of zekStarted() or zekRetargeted(): the handlers listed, and the immediate forms of
// what feeds a reactor collection.
std::string
attachment( const Type & machine, const Member & reactor, Reaction::When when ) {
   Steps steps;
   bool listed = false;
   bool needsMachine = false;
   for( const Reaction & r : reactor.reactions ) {
      if( r.when != when ) continue;
      listed = true;
      for( const Action & action : r.actions ) {
         if( action.kind == Action::Kind::owner ) needsMachine = true;
         steps.handler( handlerCall( action, "" ) );
      }
   }
   for( const Reaction & r : reactor.reactions ) {
      if( r.when != Reaction::When::on ) continue;
      if( uses( r, Action::Kind::feed ) ) {
         steps.feed( "   on" + capitalised( r.attribute ) + "zekImmediate();\n" );
      } else if( !listed && r.watched->kind != MemberKind::collection ) {
         steps.handler( "   on" + capitalised( r.attribute ) + "();\n" );
      }
   }
   if( !needsMachine ) return steps.text();
   return "   const Zek::Ptr< " + machine.name + " > machine = owner();\n" + steps.text();
}

const Reaction *
reactionOf( const Member & reactor, Reaction::When when ) {
   for( const Reaction & r : reactor.reactions ) {
      if( r.when == when ) return &r;
   }
   return nullptr;
}

} // namespace

Pieces
emitReactor( const Type & machine, const Member & m ) {
   Holes h = holesOf( machine, m );
   const Type & input = *m.type.type;
   h["Machine"] = machine.name;
   h["Reactor"] = "Zek" + h["X"];
   h["Class"] = machine.name + "::Zek" + h["X"];
   h["Input"] = cppName( input );
   h["InputPtr"] = "Zek::Ptr< const " + cppName( input ) + " >";

   std::string callbacks;
   std::string definitions;
   for( const Reaction & r : m.reactions ) {
      if( r.when != Reaction::When::on ) continue;
      Callbacks c = callbacksOf( r, h );
      callbacks += c.declaration;
      definitions += c.definition;
   }
   std::string handlers;
   for( const Member & handler : m.handlers ) {
      std::vector< std::string > arguments;
      for( const Argument & a : handler.arguments ) {
         arguments.push_back( cppParameter( a.type ) + " " + a.name );
      }
      handlers += docComment( handler.doc, 6 ) + "      " +
                  call( ( handler.isVoid ? std::string( "void" ) : cppStored( handler.type ) ) +
                           " " + handler.name,
                        arguments, handler.isConst ? " const;\n" : ";\n", 6 );
   }
   h["callbacks"] = callbacks;
   h["handlers"] = handlers;
   h["K"] = "";
   const Member * key = input.keyMember();
   if( m.isEach ) h["K"] = key ? cppStored( key->type ) : "Zek::Name";
   h["constructor"] = m.isEach ? fill( "$Reactor$( $Machine$ * owner, const $K$ & key );", h )
                               : fill( "explicit $Reactor$( $Machine$ * owner );", h );
   h["keyAccess"] = m.isEach ? fill( "      /// The key under which the machine keeps it.\n"
                                     "      const $K$ & fwkKey() const { return key_; }\n",
                                     h )
                             : "";
   h["keyField"] = m.isEach ? fill( "      const $K$ key_;\n", h ) : "";
   h["started"] = attachment( machine, m, Reaction::When::start );
   h["retargeted"] = attachment( machine, m, Reaction::When::retarget );

   Pieces out;
   out.declaration = fill( R"(   // $n$ $x$
$doc$
   /// Watches one $Input$ for its machine.
   class IPSTATE_EXPORT $Reactor$ final
      : public Zek::Reactor< $Input$::NotifieeConst, $Machine$ > {
    public:
      $constructor$
$keyAccess$
$callbacks$
$handlers$
      Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;
      static Zek::AllocTrackTypeInfo allocTrackTypeInfo_;

    private:
      void zekStarted() override;
      void zekRetargeted() override;
$keyField$
   };
)",
                           h );
   out.definition =
      fill( R"(constinit Zek::AllocTrackTypeInfo $Class$::allocTrackTypeInfo_(
   "$full$::$Reactor$", sizeof( $Reactor$ ) );

Zek::AllocTrackTypeInfo &
$Class$::zekAllocTrackTypeInfo() const {
   return allocTrackTypeInfo_;
}

)",
            h ) +
      ( m.isEach
           ? fill( R"($Class$::$Reactor$( $Machine$ * owner, const $K$ & key )
   : Reactor( owner ),
     key_( key ) {}

)",
                   h )
           : fill( "$Class$::$Reactor$( $Machine$ * owner ) : Reactor( owner ) {}\n\n", h ) ) +
      definitions +
      fill( R"(void
$Class$::zekStarted() {
$started$
}

void
$Class$::zekRetargeted() {
$retargeted$
}

)",
            h );
   if( !m.isEach ) {
      out.declaration += fill( R"(   /// What it watches, or null without a reactor.
   $InputPtr$ $x$() const;
   Zek::Ptr< $Reactor$ > $x$Reactor() const { return $x$_; }
   /// Watches `input` from now on; null is $x$Del().
   void $x$Is( const $InputPtr$ & input );
   void $x$Del();
)",
                               h );
      out.callbacks = fill( "      virtual void on$X$() {} // $n$\n", h );
      out.storage.push_back( { 16, fill( "   Zek::Ptr< $Reactor$ > $x$_;\n", h ), "" } );
      out.definition += fill( R"($InputPtr$
$Self$::$x$() const {
   return $x$_ ? $x$_->notifier() : $InputPtr$();
}

void
$Self$::$x$Is( const $InputPtr$ & input ) {
   if( $x$() == input ) return;
   Zek::reactorIs( $x$_, *this, input, [&] { announce( &NotifieeConst::on$X$ ); } );
}

void
$Self$::$x$Del() {
   if( !$x$_ ) return;
   Zek::reactorDel( $x$_ );
   announce( &NotifieeConst::on$X$ );
}

)",
                              h );
      out.row = fill( "   Zek::Rows::input< &$Self$::$x$, &$Self$::$x$Is >( \"$x$\", $n$ ),\n", h );
      out.relay = fill( "   void on$X$() override { changed( $n$ ); }\n", h );
      out.zombie = fill( "   if( $x$_ ) $x$_->zekDoZombieReactors( zombie );\n", h );
      out.orphaning = fill( "   Zek::reactorDel( $x$_ );\n", h );
      if( m.setAtConstruction ) {
         out.parameter = fill( "const $InputPtr$ & $x$", h );
         out.parameterType = h["InputPtr"];
         out.construction = fill( "   $x$Is( $x$ );\n", h );
      }
      return out;
   }

   h["Map"] = fill( "Zek::HashMap< $Reactor$, $K$ >", h );
   h["Node"] = h["Reactor"];
   h["Removed"] = "void";
   h["Shown"] = h["Input"];
   h["hasValue"] = "false";
   h["rowFlags"] = "Zek::refersToMembers | Zek::pointsToConst";
   h["gone"] = "   reactor->zekRelease();\n   $x$Notify( removedKey );\n";
   if( const Reaction * reaction = reactionOf( m, Reaction::When::gone ) ) {
      std::string calls;
      for( const Action & action : reaction->actions ) {
         bool own = action.kind == Action::Kind::self;
         bool takesKey = !action.handler->arguments.empty();
         calls += ( calls.empty() ? "" : " " ) + std::string( own ? "reactor->" : "" ) +
                  action.target + ( takesKey ? "( reactor->fwkKey() );" : "();" );
      }
      h["gone"] = "   Zek::reactorGone(\n      *reactor, [&] { " + calls +
                  " }, [&] { $x$Notify( removedKey ); } );\n";
   }
   h["gone"] = fill( h["gone"], h );
   out.declaration += fill( R"(   /// The reactor under `key`, or null.
   Zek::Ptr< $Reactor$ > $x$( const $K$ & key ) const;
)",
                            h );
   out.definition += fill( R"(Zek::Ptr< $Machine$::$Reactor$ >
$Self$::$x$( const $K$ & key ) const {
   return $x$_.find( key );
}

)",
                           h );
   h["isDeclaration"] = fill(
      R"(   /// Watches `input` under its key: a new reactor, or the present one re-targeted.
   /// RangeException on null.
   void $x$Is( const $InputPtr$ & input );
)",
      h );
   h["isDefinition"] = fill( R"(void
$Self$::$x$Is( const $InputPtr$ & input ) {
   if( !input ) Zek::throwNullParameterException( "$full$", "$x$" );
   const $InputPtr$ held = input;
   Zek::reactorIs< $Reactor$ >( $x$_, *this, held, [&] { $x$Notify( held->fwkKey() ); } );
}

)",
                             h );
   h["delBody"] = fill( R"(   const $K$ removedKey = key;
   const Zek::Ptr< $Reactor$ > reactor = $x$_.take( removedKey );
   if( !reactor ) return;
$gone$
)",
                        h );
   out.zombie = fill( "   for( $X$Iterator i( $x$_ ); i; ++i ) {\n"
                      "      i.ptr()->zekDoZombieReactors( zombie );\n   }\n",
                      h );
   out.orphaning = fill( "   Zek::releaseReactors( $x$_ );\n", h );
   shareCollection( h, machine, out );
   return out;
}

} // namespace Zek::TypeLang
