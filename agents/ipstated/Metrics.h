// The agent's figures for Prometheus, over HTTP.
//
// A small responder: GET and HEAD of /metrics, one request a connection. What it says is made when
// it is asked. It waits for nobody: few connections at a time, each for a few seconds.

#pragma once

#include "agents/ipstated/Config.h"

#include "platform/Kelmo/Socket.h"

#include <chrono>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace Ipstated {

/// Collects figures as Prometheus' text form, version 0.0.4.
class MetricsText {
 public:
   /// Begins a figure: what follows are its values.
   void begin( std::string_view name, const char * type, std::string_view help );
   /// Of the one begun; `labels` as `type="Ip::Config"`, see label().
   void value( double value, std::string_view labels = {} );
   /// Both, for one with one value.
   void gauge( std::string_view name, std::string_view help, double value );
   void counter( std::string_view name, std::string_view help, double value );

   static std::string label( std::string_view name, std::string_view value );

   std::string take() { return std::move( text_ ); }

 private:
   std::string name_;
   std::string text_;
};

class MetricsServer {
 public:
   using Time = std::chrono::steady_clock::time_point;
   static constexpr size_t mostConnections = 32;
   static constexpr size_t mostRequest = 8 << 10; ///< bytes
   static constexpr auto patience = std::chrono::seconds( 5 );

   /// Listens. Throws std::system_error with the address.
   MetricsServer( const Endpoint & endpoint, std::function< std::string() > text );
   ~MetricsServer();

   /// Readable when onReadable() has something to do.
   int fd() const { return epoll_.fd(); }
   void onReadable( Time now );
   std::optional< Time > deadline() const;
   /// Ends connections that took too long.
   void onDeadline( Time now );

 private:
   struct Connection;
   void accept( Time now );
   void pauseIs( std::optional< Time > until );
   /// False when the connection is over.
   bool serve( Connection & connection );

   Kelmo::Descriptor epoll_;
   Kelmo::Descriptor listener_;
   std::function< std::string() > text_;
   std::list< Connection > connections_;
   std::optional< Time > pausedUntil_; ///< no descriptors for those who wait
};

} // namespace Ipstated
