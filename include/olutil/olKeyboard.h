//===- olutil/olKeyboard.h - Polling the console for input -------*- C++ -*-===//
//
// Family: Platform.
//
// A simulation's frame loop must not stop to wait for a key. These functions
// ask standard input whether anything waits and read it only then: DtKbHit
// counts waiting characters, the DtPollBlocking... functions read a character
// or a line once input has begun, and DtSimpleKeyboard is a raw keyboard with a
// one-character peek.
//
// Terminal settings: DtKbHit and DtSimpleKeyboard change the terminal's
// settings while they work (no canonical mode, no echo). Whatever changed them
// puts them back: DtRestoreKbHit, the keyboard's destructor, the end of the
// process through exit() (including the exit(0) these functions make at the end
// of input), and SIGINT, SIGTERM, SIGHUP or SIGQUIT when the application has
// not set a handler of its own for that signal: the terminal is then restored
// before the signal takes its default course. Standard input that is not a
// terminal (a pipe, a file) is read the same way, without settings to change.
//
// All of this belongs to one thread: the console state and the static line
// buffer are not guarded.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLKEYBOARD_H
#define OLUTIL_OLKEYBOARD_H

#include <termios.h>

/// The number of characters waiting on standard input (the FIONREAD count).
/// On first use, or first use after DtRestoreKbHit, it saves the terminal's
/// settings, clears canonical mode and echo, sets VMIN to 0, and turns off the
/// buffering of stdin.
int DtKbHit();
/// Puts the settings that DtKbHit saved back, and makes the next DtKbHit save
/// them again.
void DtRestoreKbHit();
/// Reads one character from standard input, waiting for it; -1 at the end of
/// input or on a failure.
int DtGetCh();

/// When input waits on standard input, reads one line into `buffer` (the
/// newline dropped, the text terminated) and returns true; when nothing waits,
/// returns false at once with `buffer` holding the empty text. Once a line has
/// begun the call waits for its end: this is a polled start, not a
/// non-blocking read. At most `size` - 2 characters are taken: a longer line is
/// cut with the warning "DtPollBlockingInputLine: exceeded buffer size" on
/// DtWarn, and the rest stays in the input. The end of input ends the process
/// with exit(0). A null buffer or a size below 1 reads nothing.
bool DtPollBlockingInputLine(char* buffer, int size);
/// The same with a static buffer of 512 bytes, which it returns when a line
/// came; null otherwise.
char* DtPollBlockingInputLine();
/// 0 when no input waits; otherwise reads one byte and returns it (0 to 255).
/// The end of input ends the process with exit(0). A failing select is
/// reported with perror("DtPollBlockingInputChar: select") and gives 0.
int DtPollBlockingInputChar();

/// A raw keyboard on standard input: while it lives, characters arrive one at
/// a time without echo, and the interrupt characters (Ctrl-C) arrive as
/// characters rather than signals.
class DtSimpleKeyboard
{
public:
   /// Saves the terminal settings and applies a copy with ICANON, ECHO and
   /// ISIG cleared, VMIN 1 and VTIME 0.
   DtSimpleKeyboard();
   DtSimpleKeyboard(DtSimpleKeyboard const&) = delete;
   DtSimpleKeyboard& operator=(DtSimpleKeyboard const&) = delete;
   /// Puts the saved settings back.
   virtual ~DtSimpleKeyboard();

   /// 1 if a character waits (it is kept for getkey), 0 if none came. Never
   /// waits.
   virtual int kbhit();
   /// The character kept by kbhit, or else the next one, waiting for it; -1
   /// at the end of input.
   virtual int getkey();

private:
   // The order of these fields is part of the binary layout.
   termios saved{};
   bool haveSaved = false;
   int peek = -1;  // -1: empty
};

#endif  // OLUTIL_OLKEYBOARD_H
