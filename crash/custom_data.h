#pragma once

#include "crash/custom_data_entry.h"

#include <string>
#include <vector>

namespace google_breakpad {
class ClientInfo;
}

/// Reads a client's annotations out of its memory: the descriptor at `address` in process `pid`, then the
/// records that it points to, which are appended to `*out` in their order. An `*out` that stays as it was
/// means that there are none.
///
/// The client is stopped while it is read. All is done by ptrace, on the calling thread, with 2 words for the
/// descriptor and 40 for each record. What cannot be read reads as words of all ones, and is not told from
/// words that hold them: a descriptor that cannot be read thus announces 4,294,967,295 records, and
/// std::bad_alloc leaves this function as a rule. When an exception does, the client stays attached.
void readCustomData(unsigned long address, int pid, std::vector<vantor::crash::CustomDataEntry>* out);

/// Breakpad's dump callback, on the dump server's thread: collects the crashed client's annotations from the
/// announced address and hands the dump to the crash handler with them. The client waits until this returns.
/// An exception while reading leaves the callback, and the dump stays where it is, without parameters.
void minidumpCallback(void* context, const google_breakpad::ClientInfo* clientInfo,
                      const std::string* dumpPath);

// The steps of reading another process's memory. Their outcomes are not looked at: there is no other way to
// go on.

/// Attaches to a process and waits until it has stopped.
void attachToProcess(int pid);
/// Lets it run on, without a signal.
void detachFromProcess(int pid);
/// Reads `length` bytes, word by word: the last word is stored whole, so `buffer` must hold a multiple of 8
/// bytes. A range that wraps past the top of the address space is not read at all.
void readDataFromProcess(int pid, unsigned long address, void* buffer, unsigned long length);
