#pragma once

/// The process's signal handlers: SIGINT ends the process at once, SIGUSR1 ends the loop in
/// order, SIGPIPE is ignored, SIGCHLD reaps every ended child (its status is kept, see
/// ReapedChildren). Each logs, keeps errno, and does only what a handler may.
void installSignalHandlers();
