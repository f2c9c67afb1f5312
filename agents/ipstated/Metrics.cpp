#include "agents/ipstated/Metrics.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <netinet/in.h>
#include <sys/epoll.h>

namespace Ipstated {

// -- Text -------------------------------------------------------------------------------------

void
MetricsText::begin( std::string_view name, const char * type, std::string_view help ) {
   name_ = "ipstated_";
   name_ += name;
   text_ += "# HELP " + name_ + " " + std::string( help ) + "\n# TYPE " + name_ + " " + type + "\n";
}

void
MetricsText::value( double value, std::string_view labels ) {
   std::array< char, 32 > digits;
   const auto end = std::to_chars( digits.data(), digits.data() + digits.size(), value ).ptr;
   text_ += name_;
   if( !labels.empty() ) text_.append( "{" ).append( labels ).append( "}" );
   text_.append( " " ).append( digits.data(), end ).append( "\n" );
}

void
MetricsText::gauge( std::string_view name, std::string_view help, double amount ) {
   begin( name, "gauge", help );
   value( amount );
}

void
MetricsText::counter( std::string_view name, std::string_view help, double amount ) {
   begin( name, "counter", help );
   value( amount );
}

std::string
MetricsText::label( std::string_view name, std::string_view value ) {
   std::string text( name );
   text += "=\"";
   for( char each : value ) {
      if( each == '\n' ) {
         text += "\\n";
         continue;
      }
      if( each == '"' || each == '\\' ) text += '\\';
      text += each;
   }
   return text + "\"";
}

// -- Connections ------------------------------------------------------------------------------

struct MetricsServer::Connection {
   Kelmo::Descriptor socket;
   Time end;
   std::string request;
   std::string reply; ///< what is still to be sent
   bool over = false;
};

MetricsServer::MetricsServer( const Endpoint & endpoint, std::function< std::string() > text )
   : epoll_( epoll_create1( EPOLL_CLOEXEC ) ),
     listener_(
        socket( endpoint.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) ),
     text_( std::move( text ) ) {
   const int on = 1;
   epoll_event event{};
   event.events = EPOLLIN;
   if( !epoll_ || !listener_ ||
       setsockopt( listener_.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on ) != 0 ||
       bind( listener_.fd(), reinterpret_cast< const sockaddr * >( &endpoint.address ),
             endpoint.length ) != 0 ||
       listen( listener_.fd(), SOMAXCONN ) != 0 ||
       epoll_ctl( epoll_.fd(), EPOLL_CTL_ADD, listener_.fd(), &event ) != 0 ) {
      Kelmo::throwSystemError( "cannot serve metrics at '" + endpoint.text + "'" );
   }
}

MetricsServer::~MetricsServer() = default;

void
MetricsServer::accept( Time now ) {
   Kelmo::Descriptor socket(
      accept4( listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC ) );
   if( !socket ) {
      // Left as it is, the one who waits would keep the loop turning.
      if( errno == EMFILE || errno == ENFILE ) pauseIs( now + std::chrono::seconds( 1 ) );
      return;
   }
   if( connections_.size() >= mostConnections ) connections_.pop_front(); // the oldest
   connections_.push_back( { std::move( socket ), now + patience, {}, {} } );
   epoll_event event{};
   event.events = EPOLLIN;
   event.data.ptr = &connections_.back();
   if( epoll_ctl( epoll_.fd(), EPOLL_CTL_ADD, connections_.back().socket.fd(), &event ) != 0 ) {
      connections_.pop_back();
   }
}

void
MetricsServer::pauseIs( std::optional< Time > until ) {
   pausedUntil_ = until;
   epoll_event event{};
   event.events = until ? 0u : uint32_t( EPOLLIN );
   (void)epoll_ctl( epoll_.fd(), EPOLL_CTL_MOD, listener_.fd(), &event );
}

namespace {

std::string
replyTo( const std::string & request, const std::function< std::string() > & text ) {
   const std::string line = request.substr( 0, request.find_first_of( "\r\n" ) );
   const size_t first = line.find( ' ' ), second = line.find( ' ', first + 1 );
   const std::string method = line.substr( 0, first );
   const std::string target =
      first == line.npos ? "" : line.substr( first + 1, second - first - 1 );
   const bool known = target == "/metrics" || target.starts_with( "/metrics?" );
   const bool allowed = method == "GET" || method == "HEAD";
   const char * status = second == line.npos ? "400 Bad Request"
                         : !allowed          ? "405 Method Not Allowed"
                         : !known            ? "404 Not Found"
                                             : "200 OK";
   const bool good = status[0] == '2';
   const std::string body = good ? text() : std::string( status ) + "; expected GET /metrics\n";
   return std::string( "HTTP/1.1 " ) + status + "\r\nContent-Type: text/plain" +
          ( good ? "; version=0.0.4" : "" ) +
          "; charset=utf-8\r\nContent-Length: " + std::to_string( body.size() ) +
          "\r\nConnection: close\r\n\r\n" + ( method == "HEAD" ? "" : body );
}

} // namespace

bool
MetricsServer::serve( Connection & connection ) {
   if( connection.reply.empty() ) {
      std::array< char, 2048 > part;
      const ssize_t length = recv( connection.socket.fd(), part.data(), part.size(), 0 );
      if( length < 0 && ( errno == EAGAIN || errno == EINTR ) ) return true;
      if( length <= 0 ) return false;
      connection.request.append( part.data(), size_t( length ) );
      const bool whole = connection.request.find( "\r\n\r\n" ) != std::string::npos ||
                         connection.request.find( "\n\n" ) != std::string::npos;
      if( !whole ) return connection.request.size() < mostRequest;
      connection.reply = replyTo( connection.request, text_ );
   }
   const ssize_t sent = send( connection.socket.fd(), connection.reply.data(),
                              connection.reply.size(), MSG_NOSIGNAL );
   if( sent < 0 && errno != EAGAIN && errno != EINTR ) return false;
   connection.reply.erase( 0, size_t( std::max< ssize_t >( sent, 0 ) ) );
   if( connection.reply.empty() ) {
      shutdown( connection.socket.fd(), SHUT_WR );
      return false;
   }
   epoll_event event{};
   event.events = EPOLLOUT;
   event.data.ptr = &connection;
   return epoll_ctl( epoll_.fd(), EPOLL_CTL_MOD, connection.socket.fd(), &event ) == 0;
}

void
MetricsServer::onReadable( Time now ) {
   std::array< epoll_event, 16 > events;
   const int count = epoll_wait( epoll_.fd(), events.data(), int( events.size() ), 0 );
   bool accepts = false;
   for( int i = 0; i < count; ++i ) {
      auto * connection = static_cast< Connection * >( events[size_t( i )].data.ptr );
      if( connection ) {
         connection->over = !serve( *connection );
      } else {
         accepts = true;
      }
   }
   connections_.remove_if( []( const Connection & each ) { return each.over; } );
   if( accepts ) accept( now );
}

std::optional< MetricsServer::Time >
MetricsServer::deadline() const {
   if( connections_.empty() ) return pausedUntil_;
   return pausedUntil_ ? std::min( *pausedUntil_, connections_.front().end )
                       : connections_.front().end;
}

void
MetricsServer::onDeadline( Time now ) {
   while( !connections_.empty() && connections_.front().end <= now ) connections_.pop_front();
   if( pausedUntil_ && *pausedUntil_ <= now ) pauseIs( {} );
}

} // namespace Ipstated
