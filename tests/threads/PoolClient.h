// A DLL that uses pools, for programs that load and unload it.
#pragma once

// Runs a job on the shared pool and drops it; the worker is idle then.
using run_job_call = void (*)();
// Stops the shared pool.
using stop_call = void (*)();
// Starts jobs that wait for ever on a pool of the DLL's own, which its static
// destructor stops.
using start_jobs_call = void (*)(int count);
