#pragma once
// SIGINT and SIGTERM end a pair run cleanly: the first one only asks the run driver to stop (no new
// pair is started, the pairs in the callers finish, the outputs are closed and the telemetry
// written); a second one ends the process at once. Job schedulers send SIGTERM at a job's time
// limit, and a user presses Ctrl-C; in both cases every finished pair stays on disk, and a rerun
// with --resume calls the rest.

namespace Marlo {

// Installs the handlers of both signals; call once, from the main thread.
void InstallStopHandlers();
// The signal that asked the run to stop, or 0.
int StopSignal();

}  // namespace Marlo
