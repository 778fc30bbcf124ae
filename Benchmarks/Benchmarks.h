#pragma once

// Each prints a table of its own.
void benchmarkRoundTrips(int rounds);
void benchmarkFlood(int rounds);
void benchmarkLongResponses(int rounds);
void benchmarkMemory();
