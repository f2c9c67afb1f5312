#include "agents/ipstated/Table.h"
#include "agents/ipstated/Reflect.h"

#include <algorithm>
#include <array>
#include <set>
#include <vector>

namespace Ipstated {

namespace {

enum Column {
   interfaceColumn,
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
cellsOf( const Ip::IpIntfStatus & ip, const Ip6::IntfStatus * ip6 ) {
   Cells cells;
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

} // namespace

std::string
table( const Ip::Status & ip, const Ip6::Status & ip6 ) {
   std::vector< Velon::IntfId > ids;
   for( auto i = ip.ipIntfStatusIteratorConst(); i; ++i ) {
      ids.push_back( i.key() );
   }
   std::sort( ids.begin(), ids.end() );
   std::vector< Cells > rows;
   rows.push_back( Cells{
      { { "Interface" }, { "VRF" }, { "IPv4" }, { "IPv6" }, { "Settings" }, { "Groups" } } } );
   for( Velon::IntfId id : ids ) {
      rows.push_back( cellsOf( *ip.ipIntfStatus( id ), ip6.intf( id ).ptr() ) );
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
         for( size_t column = 0; column < columns; ++column ) {
            const std::vector< std::string > & cell = row[column];
            std::string part = line < cell.size() ? cell[line] : std::string();
            part.resize( widths[column] + 2, ' ' );
            text += part;
         }
         text.erase( text.find_last_not_of( ' ' ) + 1 );
         result += text + "\n";
      }
   }
   return result;
}

} // namespace Ipstated
