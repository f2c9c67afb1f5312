#include "agents/ipstated/Table.h"
#include "agents/ipstated/Reflect.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <set>
#include <vector>

namespace Ipstated {

namespace {

enum Column {
   interfaceColumn,
   stateColumn,
   macColumn,
   mtuColumn,
   kindColumn,
   indexColumn,
   vrfColumn,
   ip4Column,
   ip6Column,
   settingsColumn,
   groupsColumn,
   columns
};

using Cells = std::array< std::vector< std::string >, columns >;

const char *
nameOf( Urpf::UrpfMode mode ) {
   return mode == Urpf::UrpfMode::disable ? "off"
          : mode == Urpf::UrpfMode::loose ? "loose"
                                          : "strict";
}

Cells
cellsOf( const Ip::IpIntfStatus & ip, const Ip6::IntfStatus * ip6, const Interface * kernel ) {
   Cells cells;
   if( kernel ) {
      const auto put = [&]( Column column, const std::string & text ) {
         if( !text.empty() ) cells[column] = { printable( text ) };
      };
      put( stateColumn, kernel->link.stateText() );
      put( macColumn, kernel->link.addressText() );
      put( mtuColumn, std::to_string( kernel->link.mtu ) );
      put( kindColumn, kernel->link.kind );
      put( indexColumn, std::to_string( kernel->index ) );
   }
   cells[interfaceColumn] = { printable( ip.intfId().toString() ) };
   cells[vrfColumn] = { printable( ip.vrf().view() ) };
   if( ip.activeAddrWithMask() ) {
      cells[ip4Column].push_back( ip.activeAddrWithMask().toString() );
   }
   for( auto i = ip.activeSecondaryWithMaskIteratorConst(); i; ++i ) {
      cells[ip4Column].push_back( i.key().toString() + " secondary" );
   }
   std::set< Velon::IpAddr > groups;
   for( auto i = ip.mcaddrIteratorConst(); i; ++i ) {
      groups.insert( i.key() );
   }
   for( const Velon::IpAddr & group : groups ) {
      cells[groupsColumn].push_back( group.toString() );
   }

   std::string routing = ip.dpRoutingEnabled() ? "4" : "";
   if( ip6 ) {
      std::set< Velon::Ip6AddrWithMask > addresses;
      for( auto i = ip6->addrIteratorConst(); i; ++i ) {
         addresses.insert( i.key() );
      }
      for( const Velon::Ip6AddrWithMask & address : addresses ) {
         cells[ip6Column].push_back( address.toString() );
      }
      for( auto i = ip6->dadfailedIteratorConst(); i; ++i ) {
         cells[ip6Column].push_back( i.key().toString() + " duplicate" );
      }
      std::set< Velon::Ip6Addr > groups6;
      for( auto i = ip6->mcaddrIteratorConst(); i; ++i ) {
         groups6.insert( i.key() );
      }
      for( const Velon::Ip6Addr & group : groups6 ) {
         cells[groupsColumn].push_back( group.toString() );
      }
      if( ip6->dpRoutingEnabled() ) {
         routing += routing.empty() ? "6" : ",6";
      }
   }
   std::vector< std::string > & settings = cells[settingsColumn];
   if( !routing.empty() ) {
      settings.push_back( "routing " + routing );
   }
   if( ip.urpf().mode() != Urpf::UrpfMode::disable ) {
      settings.push_back( std::string( "urpf " ) + nameOf( ip.urpf().mode() ) );
   }
   if( ip.noArp() == Ip::TristateBool::isTrue ) {
      settings.push_back( "no arp" );
   }
   if( ip.directedBroadcastEnabled() ) {
      settings.push_back( "directed broadcast" );
   }
   for( std::vector< std::string > & cell : cells ) {
      if( cell.empty() ) {
         cell.push_back( "-" );
      }
   }
   return cells;
}

/// What a cell is written in, empty for the terminal's own colour.
const char *
colourOf( size_t column, const std::string & text ) {
   switch( column ) {
   case interfaceColumn:
      return "\x1b[36m";
   case stateColumn:
      return text == "UP" ? "\x1b[32m" : text == "DOWN" ? "\x1b[31m" : "";
   case macColumn:
      return "\x1b[33m";
   case ip4Column:
      return "\x1b[35m";
   case ip6Column:
      return "\x1b[34m";
   default:
      return "";
   }
}

std::vector< Velon::IntfId >
idsOf( const Ip::Status & ip ) {
   std::vector< Velon::IntfId > ids;
   for( auto i = ip.ipIntfStatusIteratorConst(); i; ++i ) {
      ids.push_back( i.key() );
   }
   std::sort( ids.begin(), ids.end() );
   return ids;
}

} // namespace

std::string
table( const Ip::Status & ip, const Ip6::Status & ip6, const KernelState & kernel, bool colours ) {
   std::vector< Cells > rows;
   rows.push_back( Cells{ { { "Interface" },
                            { "State" },
                            { "MAC" },
                            { "MTU" },
                            { "Kind" },
                            { "Index" },
                            { "VRF" },
                            { "IPv4" },
                            { "IPv6" },
                            { "Settings" },
                            { "Groups" } } } );
   for( Velon::IntfId id : idsOf( ip ) ) {
      rows.push_back( cellsOf( *ip.ipIntfStatus( id ), ip6.intf( id ).ptr(),
                               kernel.findByName( id.toString() ) ) );
   }
   std::array< size_t, columns > widths{};
   for( const Cells & row : rows ) {
      for( size_t column = 0; column < columns; ++column ) {
         for( const std::string & text : row[column] ) {
            widths[column] = std::max( widths[column], text.size() );
         }
      }
   }
   std::string result;
   for( const Cells & row : rows ) {
      size_t lines = 0;
      for( const std::vector< std::string > & cell : row ) {
         lines = std::max( lines, cell.size() );
      }
      for( size_t line = 0; line < lines; ++line ) {
         std::string text;
         size_t blanks = 0; // before the next cell that says something
         for( size_t column = 0; column < columns; ++column ) {
            const std::vector< std::string > & cell = row[column];
            const std::string part = line < cell.size() ? cell[line] : std::string();
            if( !part.empty() ) {
               const bool heads = &row == rows.data();
               const char * colour = colours && !heads ? colourOf( column, part ) : "";
               text.append( blanks, ' ' ).append( colour ).append( part );
               text += *colour ? "\x1b[0m" : "";
               blanks = 0;
            }
            blanks += widths[column] + 2 - part.size();
         }
         result += text + "\n";
      }
   }
   return result;
}

std::string
tableJson( const Ip::Status & ip, const Ip6::Status & ip6, const KernelState & kernel ) {
   auto all = nlohmann::ordered_json::array();
   for( Velon::IntfId id : idsOf( ip ) ) {
      const Ip::IpIntfStatus::PtrConst ip4Status = ip.ipIntfStatus( id );
      const Ip6::IntfStatus::PtrConst ip6Status = ip6.intf( id );
      nlohmann::ordered_json one{ { "interface", id.toString() } };
      if( const Interface * link = kernel.findByName( id.toString() ) ) {
         one["index"] = link->index;
         one["state"] = link->link.stateText();
         one["mac"] = link->link.addressText();
         one["mtu"] = link->link.mtu;
         one["kind"] = link->link.kind;
      }
      one["vrf"] = ip4Status->vrf().toString();
      auto & addresses = one["ipv4"] = nlohmann::ordered_json::array();
      if( ip4Status->activeAddrWithMask() ) {
         addresses.push_back(
            { { "address", ip4Status->activeAddrWithMask().toString() }, { "secondary", false } } );
      }
      for( auto i = ip4Status->activeSecondaryWithMaskIteratorConst(); i; ++i ) {
         addresses.push_back( { { "address", i.key().toString() }, { "secondary", true } } );
      }
      auto & addresses6 = one["ipv6"] = nlohmann::ordered_json::array();
      for( auto i = ip6Status->addrIteratorConst(); i; ++i ) {
         addresses6.push_back( { { "address", i.key().toString() }, { "duplicate", false } } );
      }
      for( auto i = ip6Status->dadfailedIteratorConst(); i; ++i ) {
         addresses6.push_back( { { "address", i.key().toString() }, { "duplicate", true } } );
      }
      all.push_back( std::move( one ) );
   }
   // Names may be no UTF-8.
   return all.dump( 2, ' ', false, nlohmann::json::error_handler_t::replace ) + "\n";
}

} // namespace Ipstated
