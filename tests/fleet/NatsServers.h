// Real NATS servers with JetStream on loopback, one or a cluster; killed, paused and begun again.

#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace ipstate::test {

class NatsServers {
 public:
   /// `extra`: lines for each server's configuration.
   explicit NatsServers( size_t count, const std::string & extra = "" );
   ~NatsServers();
   NatsServers( const NatsServers & ) = delete;
   NatsServers & operator=( const NatsServers & ) = delete;

   /// Why there are none; empty when they run.
   static std::string missing();

   size_t size() const { return servers_.size(); }
   std::string urls() const;
   std::string url( size_t server ) const;
   const std::string & folder() const { return folder_; }
   bool runs( size_t server ) const { return servers_[server].pid > 0; }
   /// At once, as by a loss of power.
   void kill( size_t server );
   void start( size_t server );
   void pauseIs( size_t server, bool paused );
   bool isPaused( size_t server ) const { return servers_[server].paused; }
   /// All run and none is paused.
   void heal();

 private:
   struct Server {
      int port = 0;
      int clusterPort = 0;
      pid_t pid = 0;
      bool paused = false;
   };
   std::string folder_;
   std::string extra_;
   std::vector< Server > servers_;
};

} // namespace ipstate::test
