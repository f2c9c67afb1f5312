// A network namespace for a test, with a pair of interfaces v0 and v1 in it, both up.

#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace Ipstated::Scripted {

/// Says why a test cannot run here, on a line of its own.
#define SKIP_BECAUSE( why )                                                                        \
   do {                                                                                            \
      printf( "SKIPPED: %s\n", why );                                                              \
      GTEST_SKIP() << why;                                                                         \
   } while( false )

class NamespaceTest : public ::testing::Test {
 protected:
   void SetUp() override {
      home_ = open( "/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC );
      if( home_ < 0 || unshare( CLONE_NEWNET ) != 0 ) {
         SKIP_BECAUSE( "no right to make a network namespace" );
      }
      entered_ = true;
      if( system( "ip -Version >/dev/null 2>&1" ) != 0 ) {
         SKIP_BECAUSE( "no ip command" );
      }
      if( !ip( { "link set lo up", "link add v0 type veth peer name v1" } ) ) {
         SKIP_BECAUSE( "no veth" );
      }
      ip( { "link set v0 up", "link set v1 up" } );
   }

   void TearDown() override {
      if( entered_ ) {
         ASSERT_EQ( setns( home_, CLONE_NEWNET ), 0 );
      }
      if( home_ >= 0 ) {
         close( home_ );
      }
   }

   /// Runs commands of ip(8) in one go; false if one of them failed.
   static bool ip( const std::vector< std::string > & commands ) {
      FILE * batch = popen( "ip -force -batch - >/dev/null 2>&1", "we" );
      for( const std::string & command : commands ) {
         fprintf( batch, "%s\n", command.c_str() );
      }
      return pclose( batch ) == 0;
   }

   static void setting( const std::string & name, const std::string & value ) {
      std::ofstream file( "/proc/sys/net/" + name );
      file << value << std::endl;
      ASSERT_TRUE( file.good() ) << name;
   }

 private:
   int home_ = -1;
   bool entered_ = false;
};

} // namespace Ipstated::Scripted
