// Values of any type, drawn from a seeded source: few enough that they meet again.

#pragma once

#include "framework/AnyKey.h"
#include "framework/Type.h"

#include <random>

namespace ipstate::test {

class Random {
 public:
   explicit Random( uint64_t seed ) : engine_( seed ) {}
   /// 0 up to n - 1.
   uint32_t below( uint32_t n ) { return n ? static_cast< uint32_t >( engine_() % n ) : 0; }
   bool oneIn( uint32_t n ) { return below( n ) == 0; }

 private:
   std::mt19937_64 engine_;
};

/// Assigns a random value of the type to the one at `value`.
void randomise( Random & random, const Zek::TypeDescriptor & type, void * value );

/// The same for what a row stores, sets inside of values included.
void randomise( Random & random, const Zek::AttributeRow & field, void * value );

Zek::AnyKey randomKey( Random & random, const Zek::TypeDescriptor & type );

} // namespace ipstate::test
