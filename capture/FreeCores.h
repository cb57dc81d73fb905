// How many of the cores this process may run on are free right now: not kept
// busy by other runnable threads. --threads asks it once, at the start, and
// starts no more workers than that: a worker beyond the free cores only
// takes turns with the others and with the other processes, and the waits
// that brings make two threads slower than one.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace pelka {

// The "procs_running" figure of /proc/stat's text: the threads of the whole
// system that are running or ready to run, the caller's own included; 0 when
// the text has none.
unsigned RunnableThreads(std::string_view proc_stat);

// Of `allowed` cores, those not taken by other runnable threads, judged by the
// lowest count of a few samples of `read_proc_stat` a millisecond apart (a
// thread that runs only for a moment is not a busy core); at least 1.
unsigned FreeCores(unsigned allowed, const std::function<std::string()>& read_proc_stat);

// The same for this process: the cores of its CPU affinity, and /proc/stat.
unsigned FreeCores();

}  // namespace pelka
