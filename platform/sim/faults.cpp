// Which call of the driver fails.
#include "kernel.h"

namespace snbf::sim {

int Kernel::fault(Fault kind, int usual_error) {
  FaultState& state = faults[static_cast<int>(kind)];
  ++state.calls;
  if (!state.always && state.calls != state.fail_at) return 0;
  state.reached = true;
  return state.error != 0 ? state.error : usual_error;
}

bool Kernel::fault_memory(Fault kind) {
  const bool any = fault(Fault::AnyAllocation, -ENOMEM) != 0;
  return fault(kind, -ENOMEM) != 0 || any;
}

void Sim::fail_nth(Fault kind, u64 nth, int error) {
  FaultState& state = kernel_->faults[static_cast<int>(kind)];
  state.fail_at = state.calls + nth;
  state.always = false;
  state.reached = false;
  state.error = error;
}

void Sim::fail_always(Fault kind, int error) {
  FaultState& state = kernel_->faults[static_cast<int>(kind)];
  state.always = true;
  state.reached = false;
  state.error = error;
}

void Sim::clear_fault(Fault kind) {
  FaultState& state = kernel_->faults[static_cast<int>(kind)];
  state.fail_at = 0;
  state.always = false;
}

void Sim::clear_faults() {
  for (std::size_t kind = 0; kind < std::size(kernel_->faults); ++kind)
    clear_fault(static_cast<Fault>(kind));
}

bool Sim::fault_reached(Fault kind) const {
  return kernel_->faults[static_cast<int>(kind)].reached;
}

u64 Sim::calls(Fault kind) const { return kernel_->faults[static_cast<int>(kind)].calls; }

}  // namespace snbf::sim
