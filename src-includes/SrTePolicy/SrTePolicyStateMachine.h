// The base of the pipeline's state machines. The first two lines of each machine's header say
// what it hears and what it writes; docs/pipeline.md lists every hand-off between them.
//
// Starting: a machine does nothing until its handleInitialized() has run. The input, publish,
// LFIB-generation and export machines run it from their constructor: they own their outputs
// outright and may start the moment they are wired. The segment, segment-list and selection
// machines are started by the host, which calls handleInitialized() right after constructing
// each, in pipeline order: a host that takes over state left by an earlier instance (the
// selection machine adopts the EcPolicy it finds) decides when that happens. Nobody else
// calls it.
//
// A machine runs its teardown (handleDel) from its destructor, so that dropping it removes
// what it published. A host that models its process dying abandons the machines first: an
// abandoned machine's destructor only detaches it, and what it wrote outside the process
// stays as it was for the next instance to find.
#pragma once

#include <string>

#include "Mosk/Entity.h"
#include "Mosk/Exception.h"

namespace SrTePolicy {

// A constructor argument that a machine cannot work without. A null one raises the range error
// "<machine>: the <argument> argument must not be null", naming the argument.
template <class T>
Mosk::Ptr<T> required(Mosk::Ptr<T> p, char const* machine, char const* argument) {
  if (!p) {
    throw Mosk::RangeException(std::string(machine) + ": the " + argument +
                               " argument must not be null");
  }
  return p;
}

class StateMachine : public Mosk::Entity {
 public:
  // From now on the destructor runs no teardown.
  void abandon() { abandoned_ = true; }
  bool abandoned() const { return abandoned_; }

 private:
  bool abandoned_ = false;
};

}  // namespace SrTePolicy
