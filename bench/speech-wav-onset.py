#!/usr/bin/env python3
"""For bench/linux-speech.sh: of each 16-bit mono WAV file given, writes
    NAME SAMPLES RATE FIRST
FIRST the index of the first sample of at least THRESHOLD in magnitude, or -1 when none is.

Usage: speech-wav-onset.py THRESHOLD FILE..."""
import array
import os
import sys
import wave


def main():
    threshold = int(sys.argv[1])
    for path in sys.argv[2:]:
        with wave.open(path, "rb") as w:
            rate, frames = w.getframerate(), w.readframes(w.getnframes())
        samples = array.array("h")
        samples.frombytes(frames[: len(frames) // 2 * 2])
        if sys.byteorder == "big":
            samples.byteswap()
        first = next((i for i, s in enumerate(samples) if abs(s) >= threshold), -1)
        print(os.path.basename(path), len(samples), rate, first)


if __name__ == "__main__":
    main()
