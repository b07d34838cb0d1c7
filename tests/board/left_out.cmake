# Tests that are not run with an emulator, and why.
list(APPEND left_out
  # They measure memory that is mostly the emulator's.
  LongRun.NothingGrows
  Signals.StopWithAllDevicesInFlight
  Start.PathsThatAreNoneLeaveTheRestRunning
)
