// Servers and mount groups over real sockets, both ends in one process.

#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include "Ip/Ip.h"
#include "framework/Exception.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Clock = Kelmo::SocketMountGroup::Clock;
using std::chrono::milliseconds;

/// What a mount group told.
struct Owner final : Kelmo::MountGroupOwner {
   void onSynchronised() override {
      told += "synchronised\n";
      if( then ) then();
   }
   void onRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
      told += "refused " + mount.path().toString() + ": " + reason + "\n";
   }
   void onLost( const std::string & reason ) override { told += "lost: " + reason + "\n"; }
   std::string told;
   std::function< void() > then;
   std::string takeTold() { return std::exchange( told, {} ); }
};

/// A tree with a directory of interfaces at "ip/input/status".
struct Tree {
   Zek::Dir::Ptr root = Zek::dirFactory();
   Ip::Input::Status::Ptr lay( const char * directory = "ip/input" ) {
      auto status = Ip::Input::statusFactory( "status" );
      root->dirIs( directory )->entityIs( status );
      return status;
   }
   Ip::Input::Status::Ptr at( const char * path = "ip/input/status" ) {
      return dynamic_cast< Ip::Input::Status * >( root->entityAt( path ).ptr() );
   }
};

Ip::IpIntfStatus::Ptr
intfIs( Ip::Input::Status & status, const char * name ) {
   const Velon::IntfId id( name );
   return status.ipIntfStatusIs( id, L3::Intf::Status::Ptr() );
}

class Sockets : public ::testing::Test {
 protected:
   Sockets() {
      char name[] = "/tmp/ipstate-XXXXXX";
      directory = mkdtemp( name );
      chmod( name, 0755 );
      path = directory + "/socket";
   }
   ~Sockets() override { fs::remove_all( directory ); }

   void serve( Kelmo::ServerOptions options = {} ) {
      server.reset();
      server = std::make_unique< Kelmo::Server >( source.root, path, std::move( options ) );
   }
   void mount( const char * at = "ip/input/status", const char * mode = "r",
               const char * type = "Ip::Input::Status" ) {
      if( !group ) {
         group = Zek::allocate< Kelmo::SocketMountGroup >( copy.root, path, owner );
      }
      group->doMount( Kelmo::Mount( at, type, mode, Kelmo::MountFilter( false ) ) );
   }
   /// One turn of the loop; false when there was nothing to do. The clock stands at `now`.
   bool turn() {
      if( server ) server->flush();
      if( group ) {
         group->timePassed( now );
         if( group ) group->flush();
      }
      pollfd waits[] = { { server ? server->fd() : -1, POLLIN, 0 },
                         { group && !stalled ? group->fd() : -1, POLLIN, 0 } };
      if( poll( waits, 2, 0 ) == 0 ) return false;
      if( waits[0].revents ) server->onReadable();
      if( waits[1].revents ) group->onReadable();
      return true;
   }
   void settle() {
      while( turn() ) {}
   }

   std::string directory;
   std::string path;
   Tree source, copy;
   std::unique_ptr< Kelmo::Server > server;
   Owner owner;
   Kelmo::SocketMountGroup::Ptr group;
   Clock::time_point now{};
   bool stalled = false;
};

const Velon::IpAddrWithMask one( "10.0.0.1/24" ), two( "10.0.0.2/24" );

TEST_F( Sockets, FollowTheServerAndWriteBackWhereTheyMay ) {
   auto status = source.lay();
   intfIs( *status, "e1" )->activeAddrWithMaskIs( one );
   auto shared = source.lay( "shared" );
   intfIs( *shared, "e1" );
   serve( { .writable = { "shared" } } );
   mount();
   settle();
   EXPECT_EQ( owner.takeTold(), "synchronised\n" );
   mount( "shared/status", "w" ); // also when connected
   EXPECT_FALSE( group->isSynchronised() );
   settle();
   EXPECT_EQ( owner.takeTold(), "synchronised\n" );
   auto intf = copy.at()->ipIntfStatus( Velon::IntfId( "e1" ) );
   EXPECT_EQ( intf->activeAddrWithMask(), one );

   status->ipIntfStatus( Velon::IntfId( "e1" ) )->activeAddrWithMaskIs( two );
   intfIs( *status, "e2" );
   copy.at( "shared/status" )->ipIntfStatus( Velon::IntfId( "e1" ) )->activeAddrWithMaskIs( one );
   settle();
   EXPECT_EQ( intf->activeAddrWithMask(), two );
   EXPECT_TRUE( copy.at()->ipIntfStatusHas( Velon::IntfId( "e2" ) ) );
   EXPECT_EQ( shared->ipIntfStatus( Velon::IntfId( "e1" ) )->activeAddrWithMask(), one );

   // Without the group, what was mounted is like anything else in the tree.
   EXPECT_THROW( intf->activeAddrWithMaskIs( one ), Zek::ReadOnlyException );
   group = nullptr;
   intf->activeAddrWithMaskIs( two );
   settle();
   EXPECT_EQ( server->clients(), 0u );
   EXPECT_EQ( server->faults(), 0u );
}

TEST_F( Sockets, RefuseWhatIsNotExportedAndGoOnWithTheRest ) {
   source.lay();
   source.lay( "ipx" );
   serve( { .exported = { "ip" } } );
   mount( "ipx/status" );
   mount( "ip/input/status", "w" );
   mount( "ip/input/status", "r", "Ip::Status" );
   mount( "ip/later", "r" ); // nothing there is no fault
   mount();
   EXPECT_THROW( mount( "ip/input/status", "rw" ), Zek::RangeException );
   settle();
   EXPECT_EQ( owner.takeTold(),
              "refused ipx/status: 'ipx/status' is not exported\n"
              "refused ip/input/status: 'ip/input/status' is not exported for writing: "
              "expected mode r or ri\n"
              "refused ip/input/status: 'ip/input/status' is Ip::Input::Status, expected "
              "Ip::Status\n"
              "synchronised\n" );
   EXPECT_TRUE( copy.at() );
   EXPECT_FALSE( copy.at( "ipx/status" ) );
}

TEST_F( Sockets, ReconnectAndTellOnlyWhatDiffers ) {
   auto status = source.lay();
   for( const char * name : { "e1", "e2", "e3" } ) intfIs( *status, name );
   serve();
   mount();
   settle();
   owner.takeTold();
   struct Counter final : Zek::AttributeSink {
      void onAttribute( const Zek::AttributeRow & row ) override { add( row ); }
      void onMember( const Zek::AttributeRow & row, const void * ) override { add( row ); }
      void add( const Zek::AttributeRow & row ) { told += std::string( row.name ) + "\n"; }
      std::string told;
   } counter;
   auto e1 = copy.at()->ipIntfStatus( Velon::IntfId( "e1" ) );
   auto watch = copy.at()->fwkType()->relay( *copy.at(), counter );
   auto watchE1 = e1->fwkType()->relay( *e1, counter );

   server.reset();
   settle();
   EXPECT_EQ( owner.takeTold(), "lost: the server at '" + path +
                                   "' closed the connection\n"
                                   "lost: cannot connect to '" +
                                   path + "': No such file or directory\n" );
   EXPECT_FALSE( group->isConnected() );
   // The pauses grow, the reason is told once.
   EXPECT_EQ( group->timePassed( now ), now + milliseconds( 100 ) );
   now += milliseconds( 100 );
   EXPECT_EQ( group->timePassed( now ), now + milliseconds( 200 ) );
   for( int i = 0; i < 20; ++i ) now = *group->timePassed( now );
   EXPECT_EQ( group->timePassed( now ), now + Kelmo::SocketMountGroup::longestPause );
   EXPECT_EQ( owner.takeTold(), "" );

   status->ipIntfStatus( Velon::IntfId( "e1" ) )->activeAddrWithMaskIs( one );
   status->ipIntfStatusDel( Velon::IntfId( "e2" ) );
   serve();
   now += Kelmo::SocketMountGroup::longestPause;
   settle();
   EXPECT_EQ( owner.takeTold(), "synchronised\n" );
   EXPECT_EQ( group->fault(), "" );
   EXPECT_EQ( counter.told, "activeAddrWithMask\nipIntfStatus\n" );
   EXPECT_EQ( copy.at()->ipIntfStatus( Velon::IntfId( "e1" ) ), e1 );
   EXPECT_FALSE( copy.at()->ipIntfStatusHas( Velon::IntfId( "e2" ) ) );
}

TEST_F( Sockets, MayLoseTheirOwnerInACallback ) {
   source.lay();
   serve();
   mount();
   owner.then = [this] { group = nullptr; };
   settle();
   EXPECT_EQ( owner.takeTold(), "synchronised\n" );
   EXPECT_TRUE( copy.at() );
   EXPECT_EQ( server->clients(), 0u );
}

/// A socket connected to the path, blocking; -1 when that is refused.
int
connectRaw( const std::string & path, int type = SOCK_STREAM ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   std::memcpy( address.sun_path, path.data(), path.size() );
   int fd = socket( AF_UNIX, type | SOCK_CLOEXEC, 0 );
   if( connect( fd, reinterpret_cast< sockaddr * >( &address ), sizeof address ) != 0 ) {
      close( fd );
      return -1;
   }
   return fd;
}

/// A socket that waits for connections at the path.
int
listenRaw( const std::string & path ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   std::memcpy( address.sun_path, path.data(), path.size() );
   const int fd = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   if( bind( fd, reinterpret_cast< sockaddr * >( &address ), sizeof address ) != 0 ||
       listen( fd, 8 ) != 0 ) {
      close( fd );
      return -1;
   }
   return fd;
}

TEST_F( Sockets, GarbageClosesItsClientAlone ) {
   auto status = source.lay();
   std::string problems;
   serve( { .problem = [&]( const std::string & text ) { problems += text + "\n"; } } );
   mount();
   settle();
   const Kelmo::Descriptor raw( connectRaw( path ) );
   settle();
   EXPECT_EQ( server->clients(), 2u );
   const std::string garbage( 100, 'x' );
   ASSERT_EQ( write( raw.fd(), garbage.data(), garbage.size() ), 100 );
   settle();
   EXPECT_EQ( server->clients(), 1u );
   EXPECT_EQ( server->faults(), 1u );
   const std::string expected = "a client, pid " + std::to_string( getpid() ) + " of uid " +
                                std::to_string( getuid() ) +
                                ", is disconnected: malformed record 0 of flow ";
   EXPECT_EQ( server->lastFault().substr( 0, expected.size() ), expected );
   EXPECT_EQ( problems, server->lastFault() + "\n" );
   intfIs( *status, "e1" );
   settle();
   EXPECT_EQ( copy.at()->ipIntfStatusCount(), 1u );
}

TEST_F( Sockets, StalledClientsCostABoundedRoom ) {
   auto status = source.lay();
   for( int i = 0; i < 100; ++i ) intfIs( *status, ( "e" + std::to_string( i ) ).c_str() );
   serve();
   mount();
   settle();
   stalled = true;
   size_t most = 0;
   for( unsigned round = 1; round <= 1000; ++round ) {
      for( auto i = status->ipIntfStatusIterator(); i; ++i ) i.ptr()->maxMssEgressIs( round );
      turn();
      most = std::max( most, server->waiting() );
   }
   EXPECT_LT( most, 80u << 10 );
   EXPECT_GT( most, 0u );

   // One that asks and asks, and reads no answer, is not heard any more.
   Kelmo::SessionOwner silent;
   Kelmo::Session flood( copy.root, silent );
   flood.connected();
   const std::string no( 200, 'x' );
   for( int i = 0; i < 60000; ++i ) {
      flood.mount( Kelmo::Mount( Zek::String( no ), "T", "w", Kelmo::MountFilter( false ) ) );
   }
   const Kelmo::Descriptor raw( connectRaw( path ) );
   fcntl( raw.fd(), F_SETFL, O_NONBLOCK );
   for( int idle = 0; idle < 3; ) {
      ssize_t sent = send( raw.fd(), flood.output().data(), flood.output().size(), MSG_NOSIGNAL );
      if( sent > 0 ) flood.carried( size_t( sent ) );
      idle = turn() || sent > 0 ? 0 : idle + 1;
   }
   EXPECT_GT( flood.output().size(), 1u << 20 );
   EXPECT_LT( server->waiting(), 3u << 20 );
   EXPECT_EQ( server->clients(), 2u );

   stalled = false;
   settle();
   EXPECT_EQ( copy.at()->ipIntfStatus( Velon::IntfId( "e99" ) )->maxMssEgress(), 1000u );
}

TEST_F( Sockets, GiveTheServerNothing ) {
   const Kelmo::Descriptor listening( listenRaw( path ) );
   ASSERT_TRUE( listening );
   copy.lay();
   mount( "other" );
   turn();
   const Kelmo::Descriptor peer( accept( listening.fd(), nullptr, nullptr ) );
   struct Curious final : Kelmo::SessionOwner {
      void onMountRefused( const Kelmo::Mount &, const std::string & reason ) override {
         told += reason;
      }
      std::string told;
   } curious;
   Kelmo::Session session( source.root, curious );
   session.mount( Kelmo::Mount( "ip", "Zek::Dir", "w", Kelmo::MountFilter( false ) ) );
   session.connected();
   const std::string out( session.output().view() );
   ASSERT_EQ( write( peer.fd(), out.data(), out.size() ), ssize_t( out.size() ) );
   settle();
   char in[1000];
   const ssize_t came = read( peer.fd(), in, sizeof in );
   ASSERT_GT( came, 0 );
   session.receive( in, size_t( came ) );
   EXPECT_EQ( curious.told, "'ip' is not exported: this end mounts" );
}

// -- Paths and users --------------------------------------------------------------------------

std::string
faultOf( const std::function< void() > & start ) {
   try {
      start();
   } catch( const std::exception & error ) {
      return error.what();
   }
   return "none";
}

TEST_F( Sockets, TakeAPathOnlyWhenNobodyHasIt ) {
   serve();
   struct stat made;
   ASSERT_EQ( stat( path.c_str(), &made ), 0 );
   EXPECT_EQ( made.st_mode & 07777, 0600u );
   auto second = [this] { Kelmo::Server( source.root, path ); };
   EXPECT_EQ( faultOf( second ), "cannot listen at '" + path +
                                    "': somebody answers there; expected a socket that "
                                    "nobody answers on, or nothing: Address already in use" );
   fs::rename( path, path + ".stale" );
   server.reset(); // leaves what is not at its path any more
   fs::rename( path + ".stale", path );
   serve();
   mount();
   settle();
   EXPECT_TRUE( group->isConnected() );
   server.reset();
   EXPECT_FALSE( fs::exists( path ) );

   std::ofstream( path ) << "precious";
   EXPECT_EQ( faultOf( second ), "cannot listen at '" + path +
                                    "': it is no socket; expected one that nobody "
                                    "answers on, or nothing: Address already in use" );
   EXPECT_EQ( fs::file_size( path ), 8u );
   path = directory + "/none/socket";
   EXPECT_EQ( faultOf( second ), "cannot listen at '" + path + "': expected a directory '" +
                                    directory + "/none/': No such file or directory" );
   path = std::string( 108, 'x' );
   EXPECT_EQ( faultOf( second ), "'" + path +
                                    "' of 108 bytes cannot be a socket: expected a "
                                    "path of 1 to 107 bytes" );
}

TEST( Peer, IsAdmittedByUserOrGroup ) {
   const Kelmo::Peer other{ geteuid() + 1, 7, { 100, 200 } };
   EXPECT_FALSE( other.isAdmitted( {} ) );
   EXPECT_FALSE( other.isAdmitted( 300 ) );
   EXPECT_TRUE( other.isAdmitted( 200 ) );
   EXPECT_TRUE( ( Kelmo::Peer{ geteuid(), 7, { 100 } }.isAdmitted( {} ) ) );
   EXPECT_TRUE( ( Kelmo::Peer{ 0, 7, { 100 } }.isAdmitted( 300 ) ) );
}

/// A process of another user, who is in this group too; ends with what `work` returns.
pid_t
forkAs( uid_t uid, gid_t also, const std::function< int() > & work ) {
   const pid_t child = fork();
   if( child ) return child;
   const bool other = setgroups( 1, &also ) == 0 && setgid( 65534 ) == 0 && setuid( uid ) == 0;
   _exit( other ? work() : 1 );
}

bool
mayBeOthers() {
   if( geteuid() == 0 ) return true;
   printf( "SKIPPED: only root can be somebody else\n" );
   return false;
}

TEST_F( Sockets, AdmitByCredentials ) {
   if( !mayBeOthers() ) GTEST_SKIP();
   constexpr gid_t friends = 54321;
   serve( { .roles = { { friends, { "" } } } } );
   struct stat made;
   ASSERT_EQ( stat( path.c_str(), &made ), 0 );
   EXPECT_EQ( made.st_mode & 07777, 0660u );
   EXPECT_EQ( made.st_gid, friends );
   ASSERT_EQ( chmod( path.c_str(), 0666 ), 0 ); // so that the credentials alone decide
   /// Whether that user is greeted.
   auto isGreeted = [this]( uid_t uid, gid_t also ) {
      const pid_t child = forkAs( uid, also, [this] {
         char byte;
         const int fd = connectRaw( path );
         return fd >= 0 && read( fd, &byte, 1 ) == 1 ? 0 : 1;
      } );
      int status;
      while( waitpid( child, &status, WNOHANG ) == 0 ) {
         settle();
         usleep( 1000 );
      }
      settle();
      return status == 0;
   };
   EXPECT_TRUE( isGreeted( 65534, friends ) );
   EXPECT_FALSE( isGreeted( 65534, 65534 ) );
   EXPECT_EQ( server->faults(), 1u );
   const std::string & fault = server->lastFault();
   EXPECT_EQ( fault.substr( fault.find( " of uid" ) ),
              " of uid 65534, is turned away: expected uid 0 or group 54321" );
}

TEST_F( Sockets, KeepRoomForRoot ) {
   if( !mayBeOthers() ) GTEST_SKIP();
   constexpr gid_t friends = 54321;
   serve( { .roles = { { friends, { "" } } }, .clients = 32 } );
   int said[2], held[2];
   ASSERT_EQ( pipe( said ) + pipe( held ), 0 );
   // Tells how many of its connections are greeted, and keeps them until the test has ended.
   const pid_t child = forkAs( 65534, friends, [&] {
      uint8_t greeted = 0;
      for( int i = 0; i < 33; ++i ) {
         char byte;
         greeted += read( connectRaw( path ), &byte, 1 ) == 1;
      }
      close( held[1] );
      return write( said[1], &greeted, 1 ) == 1 ? static_cast< int >( read( held[0], said, 1 ) )
                                                : 1;
   } );
   pollfd wait{ said[0], POLLIN, 0 };
   while( poll( &wait, 1, 1 ) == 0 && waitpid( child, nullptr, WNOHANG ) == 0 ) settle();
   uint8_t greeted = 0;
   EXPECT_EQ( read( said[0], &greeted, 1 ), 1 );
   EXPECT_EQ( greeted, 30 );
   EXPECT_NE( server->lastFault().find( "expected no more than 30 clients" ), std::string::npos );
   const int own = connectRaw( path );
   settle();
   char byte;
   EXPECT_EQ( read( own, &byte, 1 ), 1 );
   for( int fd : { own, said[0], said[1], held[0], held[1] } ) close( fd );
   waitpid( child, nullptr, 0 );
}

TEST_F( Sockets, EndWhoDoesNotGreetInTime ) {
   serve( { .greeting = milliseconds( 30 ) } );
   source.lay();
   mount();
   settle();
   const int silent = connectRaw( path );
   settle();
   ASSERT_EQ( server->clients(), 2u );
   for( auto end = Clock::now() + std::chrono::seconds( 5 );
        server->clients() == 2 && Clock::now() < end; ) {
      pollfd wait{ server->fd(), POLLIN, 0 };
      poll( &wait, 1, 100 );
      settle();
   }
   EXPECT_EQ( server->clients(), 1u ); // who has, stays
   EXPECT_NE( server->lastFault().find( "expected a greeting within the time for it" ),
              std::string::npos );
   close( silent );
}

/// A peer that knows the page of the attribute log and nothing of this code reads and writes.
TEST_F( Sockets, SpeakWithAPeerWrittenFromTheirPage ) {
   auto config = Ip::configFactory( "config" );
   source.root->dirIs( "ip" )->entityIs( config );
   for( const char * name : { "Ethernet1", "Vlan7" } ) {
      config->ipIntfConfigIs( Velon::IntfId( name ) )->maxMssEgressIs( 1400 );
   }
   serve( { .writable = { "ip/config" } } );
   const std::string output = directory + "/output";
   const pid_t child = fork();
   if( child == 0 ) {
      const int file = open( output.c_str(), O_WRONLY | O_CREAT, 0600 );
      dup2( file, STDOUT_FILENO );
      dup2( file, STDERR_FILENO );
      execlp( "python3", "python3", IPSTATE_SOURCE_DIR "/tests/stream/attribute_log_peer.py",
              path.c_str(), nullptr );
      _exit( 127 );
   }
   int status = 0;
   while( waitpid( child, &status, WNOHANG ) == 0 ) {
      settle();
      usleep( 1000 );
   }
   if( WEXITSTATUS( status ) == 127 ) GTEST_SKIP() << "python3 is not installed";
   std::ifstream file( output );
   const std::string told( std::istreambuf_iterator< char >( file ), {} );
   EXPECT_EQ( told, "Ethernet1 forwarding=1 maxMssEgress=1400\n"
                    "Vlan7 forwarding=1 maxMssEgress=1400\n"
                    "seen\n" );
   EXPECT_EQ( status, 0 );
   EXPECT_FALSE( config->ipIntfConfig( Velon::IntfId( "Ethernet1" ) )->forwarding() );
   EXPECT_TRUE( config->ipIntfConfig( Velon::IntfId( "Vlan7" ) )->forwarding() );
   EXPECT_EQ( server->faults(), 0u );
}

/// A loop of a process of its own that mounts one path; 0 when it is there, 2 when it is refused.
int
mountElsewhere( const std::string & path, const char * at, const char * mode ) {
   Owner owner;
   Tree copy;
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( copy.root, path, owner );
   group->doMount( Kelmo::Mount( at, "Ip::Input::Status", mode, Kelmo::MountFilter( false ) ) );
   for( auto end = Clock::now() + std::chrono::seconds( 5 ); Clock::now() < end; ) {
      group->timePassed( Clock::now() );
      group->flush();
      if( owner.told.find( "refused" ) != std::string::npos ) return 2;
      if( copy.root->entityAt( at ) ) return 0;
      pollfd wait{ group->fd(), POLLIN, 0 };
      if( poll( &wait, 1, 10 ) > 0 ) group->onReadable();
   }
   return 1;
}

TEST_F( Sockets, LetEachGroupMountWhatItsRoleSays ) {
   if( !mayBeOthers() ) GTEST_SKIP();
   constexpr gid_t readers = 54321, writers = 54322;
   for( const char * at : { "a", "b", "c" } ) source.lay( at );
   const std::vector< Kelmo::Role > roles{ { readers, { "a" } },
                                           { writers, { "b/status" }, { "c" } } };
   serve( { .roles = roles, .writable = { "c" } } );
   struct stat made;
   ASSERT_EQ( stat( path.c_str(), &made ), 0 );
   EXPECT_EQ( made.st_mode & 07777, 0666u );
   auto outcome = [&]( gid_t also, const char * at, const char * mode ) {
      // The server is the tested user's: the other trusts it by its group.
      const pid_t child = forkAs( 65534, also, [&] { return mountElsewhere( path, at, mode ); } );
      int status = 0;
      while( waitpid( child, &status, WNOHANG ) == 0 ) {
         settle();
         usleep( 1000 );
      }
      settle();
      return WEXITSTATUS( status );
   };
   EXPECT_EQ( outcome( readers, "a/status", "r" ), 0 );
   EXPECT_EQ( outcome( readers, "b/status", "r" ), 2 );
   EXPECT_EQ( outcome( readers, "c/status", "w" ), 2 );
   EXPECT_EQ( outcome( writers, "a/status", "r" ), 2 );
   EXPECT_EQ( outcome( writers, "b/status", "r" ), 0 );
   EXPECT_EQ( outcome( writers, "c/status", "w" ), 0 );
   EXPECT_EQ( outcome( writers, "c/status", "r" ), 0 );
   server->rolesIs( { roles[0] } );
   EXPECT_EQ( outcome( writers, "c/status", "r" ), 1 ); // cannot even open it
   EXPECT_EQ( outcome( readers, "a/status", "r" ), 0 );
   ASSERT_EQ( stat( path.c_str(), &made ), 0 );
   EXPECT_EQ( made.st_mode & 07777, 0660u );
   EXPECT_EQ( made.st_gid, readers );
}

TEST_F( Sockets, StartUnderALockThatOnlyTheirUserCanTake ) {
   const Kelmo::Descriptor held( open( directory.c_str(), O_RDONLY | O_DIRECTORY ) );
   ASSERT_EQ( flock( held.fd(), LOCK_EX ), 0 ); // anybody may who can read the directory
   serve();
   EXPECT_FALSE( fs::exists( path + ".lock" ) );
   server.reset();
   fs::create_symlink( directory + "/elsewhere", path + ".lock" );
   EXPECT_THROW( serve(), std::system_error );
   EXPECT_FALSE( fs::exists( directory + "/elsewhere" ) );
}

TEST_F( Sockets, TakeOverASocketThatListens ) {
   source.lay();
   const int fd = listenRaw( path );
   serve( { .listener = fd } );
   mount();
   settle();
   EXPECT_TRUE( copy.at() );
   server.reset();
   EXPECT_TRUE( fs::exists( path ) );
}

TEST_F( Sockets, TurnToNoServerOfAnother ) {
   if( !mayBeOthers() ) GTEST_SKIP();
   ASSERT_EQ( chmod( directory.c_str(), 0777 ), 0 );
   int ready[2];
   ASSERT_EQ( pipe( ready ), 0 );
   const Kelmo::Descriptor in( ready[0] ), out( ready[1] );
   const pid_t child = forkAs( 65534, 54321, [&] {
      const int fd = listenRaw( path );
      if( fd >= 0 && write( out.fd(), "", 1 ) == 1 ) pause();
      return 1;
   } );
   char byte;
   ASSERT_EQ( read( in.fd(), &byte, 1 ), 1 );
   for( std::optional< gid_t > friends : { std::optional< gid_t >(), std::optional< gid_t >( 1 ),
                                           std::optional< gid_t >( 54321 ) } ) {
      group = Zek::allocate< Kelmo::SocketMountGroup >( copy.root, path, owner, friends );
      turn();
      EXPECT_EQ( group->isConnected(), friends == 54321 );
   }
   EXPECT_EQ( owner.takeTold(),
              "lost: the server at '" + path + "' is pid " + std::to_string( child ) +
                 " of uid 65534: expected uid 0\nlost: the server at '" + path + "' is pid " +
                 std::to_string( child ) + " of uid 65534: expected uid 0, or group 1\n" );
   kill( child, SIGKILL );
   waitpid( child, nullptr, 0 );
}

TEST_F( Sockets, TurnAwayOneTooMany ) {
   source.lay();
   serve( { .clients = 1 } );
   mount();
   settle();
   const Kelmo::Descriptor raw( connectRaw( path ) );
   settle();
   char byte;
   EXPECT_EQ( read( raw.fd(), &byte, 1 ), 0 );
   EXPECT_EQ( server->clients(), 1u );
   EXPECT_EQ( server->faults(), 1u );
}

TEST_F( Sockets, TurnAwayForWantOfDescriptors ) {
   serve();
   const Kelmo::Descriptor first( connectRaw( path ) ), second( connectRaw( path ) );
   rlimit before;
   ASSERT_EQ( getrlimit( RLIMIT_NOFILE, &before ), 0 );
   rlimit none = before;
   none.rlim_cur = static_cast< rlim_t >( Kelmo::Descriptor( dup( first.fd() ) ).fd() );
   ASSERT_EQ( setrlimit( RLIMIT_NOFILE, &none ), 0 );
   settle(); // ends: nobody is left waiting
   setrlimit( RLIMIT_NOFILE, &before );
   EXPECT_EQ( server->faults(), 2u );
   EXPECT_EQ( server->lastFault(), "a client is turned away: no more file descriptors" );
   const Kelmo::Descriptor third( connectRaw( path ) );
   settle();
   EXPECT_EQ( server->clients(), 1u );
}

} // namespace
