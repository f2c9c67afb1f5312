// Both ends of a connection in one process, without a socket.

#pragma once

#include "platform/Kelmo/Session.h"

#include <string>

namespace bench {

class InProcess : Kelmo::SessionOwner {
 public:
   /// Mounts what stands in the writer's tree; returns when the reader has it.
   void mount( const Kelmo::Mount & mount ) {
      reader.mount( mount );
      writer.connected();
      reader.connected();
      do {
         carry( reader, writer );
         carry( writer, reader );
         writer.drain();
      } while( !writer.output().empty() || !reader.output().empty() );
   }

   Zek::Dir::Ptr source = Zek::dirFactory(), copy = Zek::dirFactory();
   Kelmo::Session writer{ source, *this }, reader{ copy, *this };

 private:
   static void carry( Kelmo::Session & from, Kelmo::Session & to ) {
      const std::string bytes( from.output().view() );
      from.carried( bytes.size() );
      to.receive( bytes.data(), bytes.size() );
   }
};

} // namespace bench
