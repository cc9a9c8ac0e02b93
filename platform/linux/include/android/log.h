// Host stand-in for the Android log.
#pragma once

// Sends one message to the system log socket /dev/log as a datagram in RFC 3164 form, with the tag
// as ident: priority 4 (info) as severity 6, priority 6 (error) as severity 3. At most 1023 bytes
// of text are kept. Without a socket the message is dropped. Returns 1 when it was sent, else -1.
extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
