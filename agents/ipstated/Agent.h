// All of the agent, in one loop.
//
// A turn waits for the first of: the kernel's messages, signals, clients, whoever asks for figures,
// readers of what was printed, a text that came to the disk, and what is due at some time. Each is
// served in bounded pieces, and none waits for another: not for a reader that stalls, a stuck
// terminal or a disk.

#pragma once

#include "agents/ipstated/Apply.h"
#include "agents/ipstated/Config.h"
#include "agents/ipstated/Intent.h"
#include "agents/ipstated/KernelFeed.h"
#include "agents/ipstated/KernelTrace.h"
#include "agents/ipstated/Log.h"
#include "agents/ipstated/Metrics.h"
#include "agents/ipstated/Mirror.h"
#include "agents/ipstated/Observers.h"
#include "agents/ipstated/Output.h"
#include "agents/ipstated/Service.h"
#include "agents/ipstated/Sources.h"
#include "agents/ipstated/State.h"
#include "agents/ipstated/Watch.h"

#include "platform/Kelmo/Server.h"

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Ipstated {

class Agent : private KernelObserver {
 public:
   using Clock = std::chrono::steady_clock;

   /// Opens all that it needs, and begins with what the state folder holds. `reread` gives the
   /// options of the configuration file as it is now. Throws what cannot be opened.
   Agent( const Options & options, Log & log, Service & service, std::function< Parsed() > reread );
   ~Agent() override;
   Agent( const Agent & ) = delete;
   Agent & operator=( const Agent & ) = delete;

   /// Until all is shown, or somebody asks for the end. Throws what dump() throws;
   /// std::system_error when the output cannot be written.
   void run();

 private:
   // KernelObserver, of what is shown of links and renames.
   void onLink( const Interface & interface, const LinkFacts & before ) override;
   void onRename( const Interface & before, const std::string & now ) override;
   void onRenamed( const Interface & interface ) override;
   void onProblem( const std::string & text ) override;

   void openIntent();
   void openServer();
   void onFirstDump();
   void show();

   bool turn();
   int timeout() const;
   void serveDeadlines( Clock::time_point now );
   void reload();
   void saveIntent();
   void intentIsSaved();
   Intent intent() const;
   bool mayApply() const;
   std::string refusalOf( const Kelmo::Mount & mount ) const;
   void onMounted( const std::string & client, const std::vector< std::string > & paths );
   std::string metrics() const;

   Options options_;
   Log & log_;
   Service & service_;
   const std::function< Parsed() > reread_;
   std::unique_ptr< Signals > signals_; ///< goes last: it ends an end that takes too long
   Output output_;
   Observers observers_;
   KernelTrace trace_;
   NetlinkSource source_;
   Mirror mirror_;
   KernelFeed feed_;
   std::unique_ptr< State > state_;
   std::unique_ptr< Apply > apply_;
   std::vector< std::unique_ptr< Watch > > intentWatches_;
   bool intentChanged_ = false;
   bool intentFailed_ = false;
   std::optional< Clock::time_point > saveAgainAt_;
   std::unique_ptr< Kelmo::Server > server_;
   std::unique_ptr< MetricsServer > metricsServer_;
   std::unique_ptr< Watch > watch_;
   std::unique_ptr< Sources > sources_;
   bool shown_ = false;
   std::string renamed_;      ///< the name that an interface is just losing, or empty
   std::exception_ptr fault_; ///< of what the feed calls, which nothing may be thrown through
   Clock::time_point behindSince_{}; ///< since when there was always more of the kernel to read
};

} // namespace Ipstated
