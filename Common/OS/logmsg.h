// Log lines: levels, header, assembly of partial lines, repeat, show and cull filters.
//
// A completed line is "<level word><processor tag><component>: <text>\n": six characters of level,
// the tag "pc[0]: ", then component and text. It goes to syslogAdd, which drops it unless a log
// writer runs. The first one of a process reads the settings, which starts the configuration database
// and its flush task, and stops the program when a configuration folder is missing.
//
// Locking: any task may log. Assembly and the repeat filter run under the interrupt lock, so a
//          caller must not hold it. The filter tables are not locked. No lock is held while something is printed.
// Errors:  a null pointer stops the program, unless it is said that it may be null.
// Limits:  a formatted line 1023 characters, an assembled line 511, a filter 369; longer text is
//          cut without a mark.
#pragma once

#include "Common/types.h"

#include <cstdarg>

enum LogLevelT : Int32 {
    kLogEmerg = 0,
    kLogAlert = 1,
    kLogCrit = 2,
    kLogError = 3,
    kLogWarning = 4,
    kLogNotice = 5,
    kLogInfo = 6,
    kLogDebug = 7,
};

// Bits of the log format: what the writer prints in front of a line.
constexpr Int32 kLogFormatDate = 1;
constexpr Int32 kLogFormatTime = 2;
constexpr Int32 kLogFormatLevel = 4;
constexpr Int32 kLogFormatProc = 8;

// Each builds a line, or a piece of one when the text has no newline. component may be null.
// Returns the length of header and text; 0 and nothing done when fmt is null.
__attribute__((format(printf, 2, 3))) Int32 logcrit(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 logerr(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 logwarn(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 loginfo(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 logdebug(const char *component, const char *fmt, ...);

// The same with the level (0 to 7) given; any other level counts as 7.
__attribute__((format(printf, 3, 4))) Int32 logmsg(Int32 level, const char *component, const char *fmt, ...);
__attribute__((format(printf, 4, 0))) Int32 va_logmsg(va_list ap, Int32 level, const char *component, const char *fmt);

// Write the level word, the processor tag, into str and return the characters written.
Int32 addLevel(Int32 level, char *str);
Int32 addProcID(char *str);

// Filters one completed line and hands it to syslogAdd. Returns len, or 0 when it was empty or
// filtered out.
Int32 logmsg_print(const char *msg, Int32 len);

// Ten show and ten cull filters: substrings, matched case-sensitively. With show filters only lines
// that contain one of them pass; a line that contains a cull filter does not.
// add: 0, or -1 with a message when the table is full. delete: one filter, compared ignoring case,
// or all with "*"; 0. load: from the configuration, returns how many were found. save: all ten
// slots to the configuration, 0. dump: to standard output, 0. Here and below, load, save and the
// format's dump do nothing and return 0 on a processor other than the master.
Int32 logmsg_showfilter_add(const char *text);
Int32 logmsg_showfilter_delete(const char *text);
Int32 logmsg_showfilter_load();
Int32 logmsg_showfilter_save();
Int32 logmsg_showfilter_dump();
Int32 logmsg_cullfilter_add(const char *text);
Int32 logmsg_cullfilter_delete(const char *text);
Int32 logmsg_cullfilter_load();
Int32 logmsg_cullfilter_save();
Int32 logmsg_cullfilter_dump();

// The log format, kLogFormat bits. All return 0 but get.
Int32 logmsg_set_format(Int32 bits);
Int32 logmsg_get_format();
Int32 logmsg_format_load();
Int32 logmsg_format_save();
Int32 logmsg_format_dump();
void logmsg_format_string(Int32 bits, char *out); // out: 24 characters or more

// The repeat filter: identical lines in a row are counted instead of printed. load: 0, with the filter
// as it was when there is no such item.
Int32 logmsg_spewfilter_load();
Int32 logmsg_set_spewfilter(Int32 on); // also stored in the configuration
Int32 logmsg_get_spewfilter();

// Whether the writer also passes lines to the operating system's log.
Int32 logmsg_set_syslog_echo(Int32 on);
Int32 logmsg_get_syslog_echo();
