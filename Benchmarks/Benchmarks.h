#pragma once

// Each prints a table of its own.
void benchmarkMemory();
void benchmarkPageFaults();
void benchmarkRoundTrips(int rounds);
void benchmarkFlood(int rounds);
void benchmarkLongResponses(int rounds);
void benchmarkActiveChannel(int rounds);
void benchmarkLogging(int rounds);
void benchmarkTransformers(int rounds);
void benchmarkSerializer(int rounds);
void benchmarkMessages(int rounds);
void benchmarkThreads(int rounds);
void benchmarkConsole(int rounds);
void benchmarkIdle(int seconds);
