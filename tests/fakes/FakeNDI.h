#pragma once

// A stand-in for the NDI runtime, for tests only: a shared library that exports NDIlib_v5_load with the
// runtime's function table layout, so that the program loads it exactly as it loads libndi.so.6. Its
// senders live in this process and are scripted through the functions below. The pictures and sound of a
// sender follow its own clock from the moment it was added: a receiver is handed each picture and each
// 10 ms block of sound once the monotonic clock has reached its time, so a take paces itself as it would
// with a real sender.
//
// The runtime's own behaviour can be changed through the environment, read at each call:
// FAKE_NDI_UNSUPPORTED_CPU=1 makes is_supported_CPU answer false, FAKE_NDI_INITIALIZE_FAILS=1 makes
// initialize answer false. FAKE_NDI_LATE_SENDER=NAME gives a program run from a script a sender to find:
// one of that name, sending 320 × 180 BGRX pictures 30 times a second without sound, listed one second
// after the first finder was made, as a sender on the network answers discovery a moment late.

#include <cstdint>

extern "C" {

// A FourCC as NDI packs it: 'B' | 'G' << 8 | 'R' << 16 | 'A' << 24.
constexpr int FakeNDIFourCC(const char (&text)[5]) {
    return int(uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 |
               uint32_t(uint8_t(text[2])) << 16 | uint32_t(uint8_t(text[3])) << 24);
}

struct FakeNDISender {
    // The name as the finder reports it, byte for byte (it need not be UTF-8), copied; it has no address.
    const char* name = nullptr;

    // Pictures: `fourcc` 0 sends none. Every pixel of a picture is `colour` (B | G << 8 | R << 16 | A << 24,
    // as BGRA lies in memory; BGRX sends 0 as its fourth byte; any other FourCC, which the program only
    // drops, gets the same four bytes a pixel), rows `stride` bytes apart (0: packed), the bytes past a
    // row's pixels 0xEE.
    int fourcc = 0;
    int width = 0, height = 0, stride = 0;
    uint32_t colour = 0;
    int frameRateN = 30, frameRateD = 1;

    // Sound: `soundFourcc` 0 sends none. Planar float samples at `sampleRate`, each of `channelCount`
    // channels a sine of `toneFrequency` Hz whose peak is `toneLevel`.
    int soundFourcc = 0;
    int sampleRate = 48000, channelCount = 2;
    double toneFrequency = 1000;
    float toneLevel = 0.5f;

    // Blinking, 0 for none: during the first half of every `blinkInterval` seconds the pictures are
    // `colour` and the tone sounds; during the second half the pictures are black (0xFF000000) and the sound
    // is silent. So a movie shows whether its pictures and sound are in step.
    double blinkInterval = 0;
};

// Lists a sender last among the sources and starts its clock; answers its identifier (from 1 on).
__attribute__((visibility("default"))) int FakeNDI_AddSender(const FakeNDISender* sender);
// The sender leaves the list and every receiver connected to it loses its connection.
__attribute__((visibility("default"))) void FakeNDI_RemoveSender(int sender);
// The sender moves to the front of the list.
__attribute__((visibility("default"))) void FakeNDI_MoveSenderFirst(int sender);
// How many receivers are connected to the sender now (made for its name and not destroyed).
__attribute__((visibility("default"))) int FakeNDI_ReceiverCount(int sender);
// How many finders exist now (made and not destroyed).
__attribute__((visibility("default"))) int FakeNDI_FinderCount();
// Removes every sender.
__attribute__((visibility("default"))) void FakeNDI_Reset();
}
