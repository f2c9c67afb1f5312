// Types made at run time of the declarations of all others, beside these: the same texts, bytes,
// orders, announcements and refusals. tests/records/SweepTest.cpp sweeps them by reflection too.

#include "framework/DynamicTypes.h"
#include "framework/Generic.h"
#include "framework/attrlog/AttrLog.h"
#include "tests/records/Records.h"

using namespace Records;
using Zek::AttributeKind;
using Zek::AttributeRow;
using Zek::Declaration;
using Zek::Declarations;
using Zek::DynamicTypes;
using Zek::TypeDescriptor;

namespace {

const Declaration &
declaredAs( const Declarations & all, const std::string & name ) {
   for( const Declaration & d : all ) {
      if( d.fullName == name ) return d;
   }
   ADD_FAILURE() << "no declaration of " << name;
   return all.front();
}

std::string
bytesOf( const Declarations & declarations ) {
   Zek::Wire::Buffer buffer;
   Zek::Wire::Encoder out( buffer );
   encode( declarations, out );
   return std::string( buffer.view() );
}

/// As it comes over a stream.
Declarations
sent( const Declarations & declarations ) {
   const std::string bytes = bytesOf( declarations );
   Zek::Wire::Decoder in( bytes.data(), bytes.size() );
   Declarations out;
   EXPECT_TRUE( decode( in, out ) ) << in.expected() << " at " << in.failedAt();
   EXPECT_EQ( in.left(), 0u );
   return out;
}

/// The stored attributes of a record, those of its bases too, as lines of text.
std::string
stored( const Zek::PtrInterface & record ) {
   std::string out;
   for( auto type = record.fwkType(); type && type->isRecord; type = type->base ) {
      for( const AttributeRow & row : type->attributes ) {
         if( row.kind == AttributeKind::constant || row.isStored() ) {
            const AnyValue value( row, &record );
            const bool isObject = row.type->isCounted() && value.text() != "null";
            out += std::string( row.name ) + " " + ( isObject ? "object" : value.text() ) + "\n";
         } else if( row.collection ) {
            out += std::string( row.name ) + " " + members( row, &record ) + "\n";
         }
      }
   }
   return out;
}

/// Does the same to a record and its twin: attribute by attribute, the `n`th specimen.
void
fill( Zek::PtrInterface & record, unsigned n ) {
   for( auto type = record.fwkType(); type && type->isRecord; type = type->base ) {
      for( const AttributeRow & row : type->attributes ) {
         if( row.isWritable() && !row.type->isCounted() ) {
            const AnyValue value = specimen( *row.type, n );
            try {
               row.write( &record, value.at() );
            } catch( const Zek::RangeException & ) {
               ADD_FAILURE() << "a specimen out of range";
            }
         } else if( row.collection && !row.has( Zek::ownsMembers ) &&
                    !row.has( Zek::refersToMembers ) ) {
            // Hashed orders show how keys hash.
            for( unsigned i = n; i < n + 20; ++i ) {
               const AnyValue key = specimen( *row.keyType, i ), value = specimen( *row.type, i );
               const void * argument = value.at();
               const bool isCarried = row.has( Zek::keyIsField );
               row.collection->is( &record, isCarried ? value.at() : key.at(), &argument );
            }
         }
      }
   }
}

class EveryTwin : public testing::TestWithParam< const TypeDescriptor * > {
 protected:
   const TypeDescriptor & type() const { return *GetParam(); }
   const TypeDescriptor & twin() const { return *twins().type( type().fullName ); }
};

TEST_P( EveryTwin, IsDeclaredAsItsType ) {
   ASSERT_NE( &twin(), &type() );
   EXPECT_TRUE( isDynamic( twin() ) );
   EXPECT_FALSE( isDynamic( type() ) );
   const Declaration original = declarationOf( type() ), copy = declarationOf( twin() );
   EXPECT_EQ( copy.comment, original.comment );
   ASSERT_EQ( copy.attributes.size(), original.attributes.size() );
   for( size_t i = 0; i < copy.attributes.size(); ++i ) {
      const Declaration::Attribute &a = original.attributes[i], &b = copy.attributes[i];
      SCOPED_TRACE( a.name );
      EXPECT_EQ( b.name, a.name );
      EXPECT_EQ( b.comment, a.comment );
      EXPECT_EQ( b.initial, a.initial );
      EXPECT_EQ( b.max, a.max );
      EXPECT_EQ( b.type, a.type );
      EXPECT_EQ( b.keyField, a.keyField );
      EXPECT_EQ( b.value, a.value );
   }
   // What a third process makes of the twin is what this one made of the type.
   EXPECT_TRUE( bytesOf( { copy } ) == bytesOf( { original } ) );
}

TEST_P( EveryTwin, StreamsAsItsType ) {
   if( !type().hasAttrLog ) return;
   ASSERT_TRUE( twin().hasAttrLog );
   const Zek::NboAttrLog::Plan plan( type() ), other( twin() );
   EXPECT_EQ( plan.fingerprint, other.fingerprint );
   EXPECT_EQ( plan.attrIdsReqSync, other.attrIdsReqSync );
   ASSERT_EQ( plan.plain.size(), other.plain.size() );
   for( size_t i = 0; i < plan.plain.size(); ++i ) {
      const AttributeRow & row = *plan.plain[i];
      EXPECT_EQ( row.id, other.plain[i]->id );
      EXPECT_EQ( plan.sizeInState( row ), plan.sizeInState( *other.plain[i] ) ) << row.name;
   }
}

TEST_P( EveryTwin, ShowsAndAnnouncesWhatItsTypeDoes ) {
   if( !type().isCounted() || !twin().isMade() ) return;
   const bool takesOthers =
      std::ranges::any_of( twin().constructorParameters, []( const Zek::ParameterRow & p ) {
         return p.isPointer && !p.type->isMade();
      } );
   const unsigned first = takesOthers ? 0 : 1;
   const auto record = made( type(), first ), copy = made( twin(), first );
   const Declaration declared = declarationOf( type() );
   if( std::ranges::all_of( declared.attributes, [&]( auto & a ) { return a.becomes.empty(); } ) ) {
      EXPECT_EQ( stored( *copy ), stored( *record ) ) << "as made";
   }
   Story story( *record ), copys( *copy );
   for( unsigned n : { 1u, 2u, 2u, 5u } ) {
      fill( *record, n );
      fill( *copy, n );
      EXPECT_EQ( copys.told(), story.told() );
      EXPECT_EQ( stored( *copy ), stored( *record ) );
   }
}

TEST_P( EveryTwin, HasValuesOfTheSameTextBytesOrderAndHash ) {
   if( type().isCounted() ) return;
   const Zek::ValueOps &ops = *type().values, &other = *twin().values;
   EXPECT_EQ( ops.wireSize, other.wireSize );
   EXPECT_EQ( ops.isOrdered(), other.isOrdered() );
   auto bytes = []( const Zek::ValueOps & of, const AnyValue & value ) {
      Zek::Wire::Buffer buffer;
      Zek::Wire::Encoder out( buffer );
      of.encode( value.at(), out );
      return std::string( buffer.view() );
   };
   auto fillSets = []( const TypeDescriptor & of, const AnyValue & value, unsigned n ) {
      for( const AttributeRow & row : of.attributes ) {
         for( unsigned i = n; row.valueSet && i; --i ) {
            row.valueSet->add( value.at(), specimen( *row.keyType, i ).at() );
         }
      }
   };
   // Objects that are no entities are not made: a pointer to one stays null.
   const bool pointsToOthers =
      std::ranges::any_of( twin().attributes, []( const AttributeRow & row ) {
         return row.isStored() && row.type->isCounted() && !row.type->isMade();
      } );
   for( unsigned n = 0; n < ( pointsToOthers ? 1u : 6u ); ++n ) {
      const AnyValue value = n ? specimen( type(), n ) : AnyValue( ops );
      const AnyValue copy = n ? specimen( twin(), n ) : AnyValue( other );
      fillSets( type(), value, n );
      fillSets( twin(), copy, n );
      EXPECT_EQ( copy.text(), value.text() );
      EXPECT_EQ( bytes( other, copy ), bytes( ops, value ) );
      const std::string wire = bytes( ops, value );
      AnyValue back( other );
      Zek::Wire::Decoder in( wire.data(), wire.size() );
      ASSERT_TRUE( other.decode( in, back.at() ) ) << in.expected();
      // Pointers do not travel.
      if( value.text().find( "0x" ) == std::string::npos ) {
         EXPECT_TRUE( back == copy );
      }
      if( ops.isHashed() ) {
         EXPECT_EQ( other.hash( copy.at() ), ops.hash( value.at() ) );
      }
      const AnyValue zero( ops ), copysZero( other );
      EXPECT_EQ( copy == copysZero, value == zero );
      if( ops.isOrdered() ) {
         EXPECT_EQ( other.less( copysZero.at(), copy.at() ), ops.less( zero.at(), value.at() ) );
      }
   }
}

INSTANTIATE_TEST_SUITE_P( Records, EveryTwin, testing::ValuesIn( [] {
                             std::vector< const TypeDescriptor * > types;
                             for( auto & [name, type] : recordTypes() ) types.push_back( type );
                             return types;
                          }() ),
                          []( auto & info ) {
                             std::string name = info.param->fullName;
                             std::replace( name.begin(), name.end(), ':', '_' );
                             return name;
                          } );

// -- What a declaration says ------------------------------------------------------------------

TEST( Declarations, SayWhatTheSchemaSays ) {
   const Declarations all = sent( declarationsOf( *Zek::typeNode( "Ip::IpIntfConfig" ) ) );
   const Declaration & config = all.front();
   EXPECT_EQ( config.fullName, "Ip::IpIntfConfig" );
   EXPECT_EQ( config.base, "Zek::Entity" );
   EXPECT_FALSE( config.comment.empty() );
   const auto & maxMss = *config.attribute( "maxMssEgress" );
   EXPECT_EQ( maxMss.type, "U16" );
   EXPECT_EQ( maxMss.initial, "0" );
   EXPECT_EQ( maxMss.max, "65515" );
   EXPECT_EQ( maxMss.refusal,
              "IpIntfConfig::maxMssEgress < 0 or > IpIntfConfig::tcpMssMax not allowed" );
   EXPECT_FALSE( maxMss.comment.empty() );
   EXPECT_EQ( config.attribute( "tcpMssMax" )->value, "65515" );
   EXPECT_EQ( config.attribute( "configSource" )->initial, "00cli" );
   EXPECT_EQ( config.attribute( "noArp" )->initial, "isInvalid" );
   EXPECT_EQ( config.attribute( "vrf" )->through, "l3Config" );
   const auto & secondary = *config.attribute( "secondaryWithMask" );
   EXPECT_EQ( secondary.keyType, "Velon::IpAddrWithMask" );
   EXPECT_EQ( secondary.type, "bool" );
   // What it names comes with it, once, and the framework's own does not.
   const Declaration & scope = declaredAs( all, "Ip::IpAddrScope" );
   EXPECT_FALSE( scope.enumerators.empty() );
   EXPECT_EQ( declaredAs( all, "L3::VrfName" ).maxBytes, 100u );
   for( const Declaration & d : all ) {
      EXPECT_FALSE( Zek::isFrameworkType( d.fullName ) ) << d.fullName;
      EXPECT_EQ( std::ranges::count( all, d.fullName, &Declaration::fullName ), 1 ) << d.fullName;
   }
}

// -- What is refused --------------------------------------------------------------------------

class Refused : public testing::Test {
 protected:
   DynamicTypes types{ DynamicTypes::Linked::used };

   static Declaration entity( const std::string & name ) {
      Declaration d;
      d.fullName = name;
      d.kind = Zek::TypeKind::entity;
      d.base = "Zek::Entity";
      d.isNamed = d.hasNotifier = d.hasAttrLog = d.isMade = true;
      d.constructorParameters = { { "name", "Zek::Name", false, false } };
      return d;
   }
   static Declaration value( const std::string & name ) {
      Declaration d;
      d.fullName = name;
      return d;
   }
   static Declaration::Attribute & add( Declaration & d, AttributeKind kind,
                                        const std::string & name, const std::string & type ) {
      Declaration::Attribute a;
      a.name = name;
      a.id = static_cast< uint16_t >( 258 + d.attributes.size() );
      a.kind = kind;
      a.type = type;
      a.isStored = a.isWritable = kind == AttributeKind::plain || kind == AttributeKind::pointer;
      return d.attributes.emplace_back( a );
   }
   /// What `declare` says against them, and that nothing was made of any.
   std::string fault( const Declarations & declarations ) {
      const std::string told =
         refusal< Zek::RangeException >( [&] { types.declare( declarations ); } );
      EXPECT_EQ( types.count(), 0u );
      return told;
   }
};

TEST_F( Refused, AreTypesThatContainThemselves ) {
   Declaration a = value( "T::A" ), b = value( "T::B" );
   add( a, AttributeKind::constructorParameter, "b", "T::B" );
   add( b, AttributeKind::constructorParameter, "a", "T::A" );
   EXPECT_EQ( fault( { a, b } ), "declaration of 'T::A': it contains itself" );
   Declaration c = entity( "T::C" ), d = entity( "T::D" );
   c.base = "T::D";
   d.base = "T::C";
   EXPECT_EQ( fault( { c, d } ), "declaration of 'T::C': it contains itself" );
}

TEST_F( Refused, AreValuesThatMultiply ) {
   Declarations all;
   for( int i = 0; i < 20; ++i ) {
      Declaration & d = all.emplace_back( value( "T::V" + std::to_string( i ) ) );
      const std::string inner = i ? "T::V" + std::to_string( i - 1 ) : "U8";
      add( d, AttributeKind::constructorParameter, "x", inner );
      add( d, AttributeKind::constructorParameter, "y", inner );
   }
   EXPECT_NE( fault( all ).find( "too many parts" ), std::string::npos );
   // Deep, though every one is small.
   for( Declaration & d : all ) d.attributes.resize( 1 );
   for( int i = 20; i < 60; ++i ) {
      Declaration & d = all.emplace_back( value( "T::V" + std::to_string( i ) ) );
      add( d, AttributeKind::constructorParameter, "x", "T::V" + std::to_string( i - 1 ) );
   }
   std::reverse( all.begin(), all.end() );
   EXPECT_NE( fault( all ).find( "nests too deep" ), std::string::npos );
}

TEST_F( Refused, AreAttributesThatDoNotFitTogether ) {
   auto faultOf = [&]( auto change ) {
      Declaration d = entity( "T::E" );
      change( d );
      return fault( { d } ).substr( std::string( "declaration of 'T::E': " ).size() );
   };
   using enum AttributeKind;
   EXPECT_EQ( faultOf( []( auto & d ) { add( d, plain, "x", "T::Nothing" ); } ),
              "unknown type 'T::Nothing'" );
   EXPECT_EQ( faultOf( []( auto & d ) { add( d, plain, "x", "U16" ).initial = "70000"; } ),
              "attribute 'x' '70000' does not read as a value of type U16" );
   EXPECT_EQ( faultOf( []( auto & d ) { add( d, pointer, "x", "U16" ); } ),
              "attribute 'x' is a pointer to a counted type, or a value" );
   EXPECT_EQ( faultOf( []( auto & d ) { add( d, plain, "x", "bool" ).flags = Zek::isCounter; } ),
              "attribute 'x' counts, and is no whole number" );
   EXPECT_EQ( faultOf( []( auto & d ) {
                 add( d, collection, "x", "T::E" ).keyType = "U16";
                 d.attributes.back().flags = Zek::ownsMembers;
              } ),
              "attribute 'x' has keys of another type than its members" );
   EXPECT_EQ( faultOf( []( auto & d ) {
                 add( d, collection, "x", "T::E" ).keyType = "Zek::Name";
                 d.attributes.back().flags = Zek::refersToMembers | Zek::isOrdered;
              } ),
              "attribute 'x' is a hashed collection of entities, or one of values" );
   EXPECT_EQ( faultOf( []( auto & d ) {
                 add( d, collection, "x", "Urpf::UrpfConfig" ).keyType = "U16";
                 d.attributes.back().flags = Zek::keyIsField;
                 d.attributes.back().keyField = "none";
              } ),
              "attribute 'x' has no key in its values" );
   EXPECT_EQ( faultOf( []( auto & d ) {
                 d.constructorParameters.push_back( { "y", "U16" } );
              } ),
              "parameter 'y' is none of its attributes" );
   EXPECT_EQ( faultOf( []( auto & d ) { d.base = "Ip::Config"; } ),
              "it derives from 'Ip::Config', which is linked" );
   types.limits.attributes = 3;
   EXPECT_NE( faultOf( []( auto & d ) {
                 for( const char * name : { "a", "b", "c" } ) add( d, plain, name, "bool" );
              } ).find( "no more are" ),
              std::string::npos );
}

/// Every byte of a declaration changed, and every length: refused, or types all the same.
TEST( Declarations, AreReadWithinTheirBounds ) {
   const std::string bytes =
      bytesOf( declarationsOf( *Zek::typeNode( "Ip::MulticastGroupInfo" ) ) );
   auto take = []( const std::string & from ) {
      Zek::Wire::Decoder in( from.data(), from.size() );
      Declarations read;
      if( !decode( in, read ) ) {
         EXPECT_TRUE( in.failed() );
         return;
      }
      try {
         DynamicTypes( DynamicTypes::Linked::ignored ).declare( read );
      } catch( const Zek::RangeException & ) {}
   };
   for( size_t i = 0; i < bytes.size(); ++i ) {
      take( bytes.substr( 0, i ) );
      std::string other = bytes;
      for( char flip : { '\x01', '\x80', '\xff' } ) {
         other[i] = static_cast< char >( bytes[i] ^ flip );
         take( other );
      }
   }
   Declaration d;
   d.fullName = "T::A";
   Declarations twice{ d, d };
   const std::string again = bytesOf( twice );
   Zek::Wire::Decoder in( again.data(), again.size() );
   EXPECT_FALSE( decode( in, twice ) );
   EXPECT_EQ( std::string( in.expected() ), "types of different names" );
}

// -- Types of one's own -----------------------------------------------------------------------

TEST( DynamicTypes, AreFoundByNameAndStay ) {
   Declaration door;
   door.fullName = "House::Door";
   door.kind = Zek::TypeKind::entity;
   door.base = "Zek::Entity";
   door.isNamed = door.hasNotifier = door.hasAttrLog = door.isMade = true;
   door.constructorParameters = { { "name", "Zek::Name", false, false } };
   Declaration::Attribute width;
   width.name = "width";
   width.id = 258;
   width.type = "U16";
   width.initial = "90";
   width.max = "120";
   width.refusal = "too wide";
   width.flags = Zek::isTestedFirst;
   width.isStored = width.isWritable = true;
   door.attributes = { width };
   DynamicTypes types( DynamicTypes::Linked::used );
   types.declare( { door } );
   const TypeDescriptor * type = types.type( "House::Door" );
   ASSERT_NE( type, nullptr );
   EXPECT_EQ( Zek::typeNode( "House::Door" ), nullptr ); // of the set alone
   // The first declaration of a name stays.
   door.attributes.clear();
   types.declare( { door } );
   EXPECT_EQ( types.type( "House::Door" ), type );
   ASSERT_EQ( type->attributes.size(), 1u );

   const auto root = Zek::dirFactory( "root" );
   const Zek::GenericValue made =
      type->genericIf->genericIfFromCtorArgs( { Zek::Name( "front" ) } );
   const auto front = made.as< Zek::Entity::Ptr >();
   root->entityIs( front );
   EXPECT_EQ( front->fullName(), "root/front" );
   const Zek::GenericIf & generic = *type->genericIf;
   auto widthNow = [&] {
      return generic.genericIfAttributeOp( front, Zek::GenericOperation::read, "width" ).text();
   };
   EXPECT_EQ( widthNow(), "90" );
   auto widthIs = [&]( uint16_t to ) {
      generic.genericIfAttributeOp( front, Zek::GenericOperation::write, "width", { to } );
   };
   widthIs( 100 );
   EXPECT_EQ( refusal< Zek::RangeException >( [&] { widthIs( 121 ); } ), "too wide" );
   EXPECT_EQ( widthNow(), "100" );
   // A name that is linked is the linked type.
   Declaration other;
   other.fullName = "Ip::IpIntfConfig";
   types.declare( { other } );
   EXPECT_EQ( types.type( "Ip::IpIntfConfig" ), Zek::typeNode( "Ip::IpIntfConfig" ) );
   EXPECT_EQ( types.count(), 1u );
}

} // namespace
