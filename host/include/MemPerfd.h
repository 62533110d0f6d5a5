// The framework's perf-hint hub: delivers hints to the actions registered for them.
#pragma once

#include <cstdint>

#include "AsyncTriggerPayload.h"

// Something that acts on perf hints.
class Action {
 public:
  virtual ~Action();
  virtual void applyAction(const AsyncTriggerPayload& payload) = 0;
};

class MemPerfd {
 public:
  // The process-wide hub; its delivery thread starts on first use and is
  // stopped at process exit.
  static MemPerfd* getInstance();

  // Registers `action` for `hint`; registering the same pair twice keeps one.
  // `exclusive` asks that no other action be registered for the hint; the
  // reference hub records it and does not enforce it. Returns 0.
  int registerToPerfHint(Action* action, unsigned hint, bool exclusive);
  // Removes the registration. Once it returns, the hub's thread no longer
  // runs (and will not start) `action`'s applyAction for that hint, so the
  // action may be destroyed (called from that applyAction itself, it cannot
  // wait, and only future deliveries are stopped). Returns 0, or -1 when
  // nothing was registered.
  int deregisterPerfHint(Action* action, unsigned hint);

  // Host side: queues `payload`; the hub's thread calls applyAction of every
  // action registered for payload.hintID, in registration order.
  void sendHint(const AsyncTriggerPayload& payload);
  // Host side: waits until every hint queued so far has been delivered.
  // Returns at once on the hub's own thread.
  void drain();

  MemPerfd(const MemPerfd&) = delete;
  MemPerfd& operator=(const MemPerfd&) = delete;

 private:
  MemPerfd();
  ~MemPerfd();
  // Stops and joins the delivery thread when the process exits; hints sent
  // afterwards are dropped and drain() no longer waits.
  static void stopAtExit();
  struct Impl;
  Impl* mImpl;
};
