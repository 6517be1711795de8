// The base of the pipeline's state machines. The first two lines of each machine's header say
// what it hears and what it writes; docs/pipeline.md lists every hand-off between them.
//
// A machine runs its teardown (handleDel) from its destructor, so that dropping it removes
// what it published. A host that models its process dying abandons the machines first: an
// abandoned machine's destructor only detaches it, and what it wrote outside the process
// stays as it was for the next instance to find.
#pragma once

#include "Mosk/Entity.h"

namespace SrTePolicy {

class StateMachine : public Mosk::Entity {
 public:
  // From now on the destructor runs no teardown.
  void abandon() { abandoned_ = true; }
  bool abandoned() const { return abandoned_; }

 private:
  bool abandoned_ = false;
};

}  // namespace SrTePolicy
