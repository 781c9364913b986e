// Log lines: levels, header, assembly of partial lines, and three filters: repeat, show, cull.
//
// A completed line is "<level word><processor tag><component>: <text>\n". The level word has six characters, the tag is
// "pc[0]: ". The line goes to syslogAdd, which drops it unless a log writer runs. The first line of a process reads the
// settings: that starts the configuration database and its flush task. A missing configuration folder then stops the
// program.
//
// Locking: any task may log, but not with the interrupt lock held: assembly and the repeat filter take it. The filter
//          tables have no lock. No lock is held while something is printed.
// Errors:  a null pointer stops the program, unless a comment says that it may be null.
// Limits:  1023 characters of a formatted line, 511 of an assembled line, 369 of a filter. Longer text is cut without a
//          mark.
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

// Bits of the log format: what the writer prints before a line.
constexpr Int32 kLogFormatDate = 1;
constexpr Int32 kLogFormatTime = 2;
constexpr Int32 kLogFormatLevel = 4;
constexpr Int32 kLogFormatProc = 8;

// Each builds a line. Text without a newline is a piece of a line: the next call continues it. component may be null.
// Returns the length of header and text. If fmt is null, it does nothing and returns 0.
__attribute__((format(printf, 2, 3))) Int32 logcrit(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 logerr(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 logwarn(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 loginfo(const char *component, const char *fmt, ...);
__attribute__((format(printf, 2, 3))) Int32 logdebug(const char *component, const char *fmt, ...);

// The same, with the level as an argument: 0 to 7. Any other level counts as 7.
__attribute__((format(printf, 3, 4))) Int32 logmsg(Int32 level, const char *component, const char *fmt, ...);
__attribute__((format(printf, 4, 0))) Int32 va_logmsg(va_list ap, Int32 level, const char *component, const char *fmt);

// Write into str and return how many characters they wrote: addLevel the level word, addProcID the processor tag.
Int32 addLevel(Int32 level, char *str);
Int32 addProcID(char *str);

// Filters one completed line and hands it to syslogAdd. Returns len. Returns 0 if the line is empty or filtered out.
Int32 logmsg_print(const char *msg, Int32 len);

// Ten show filters and ten cull filters. A filter is a part of a line; case counts. With show filters, a line passes
// only if it contains one of them. A line that contains a cull filter does not pass.
// add     returns 0. Returns -1, and prints that, if all ten are in use.
// delete  deletes one filter (case does not count), or with "*" all. Returns 0; prints that there is no such filter.
// load    adds the filters of the configuration. Returns how many there were.
// save    stores all ten in the configuration. Returns 0.
// dump    prints the filters to standard output. Returns 0.
// On a processor other than the master load and save do nothing and return 0. The same holds for load, save and dump of
// the format, and for load of the repeat filter.
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

// The log format: kLogFormat bits. logmsg_get_format returns it, and the others return 0.
Int32 logmsg_set_format(Int32 bits);
Int32 logmsg_get_format();
Int32 logmsg_format_load();
Int32 logmsg_format_save();
Int32 logmsg_format_dump();
void logmsg_format_string(Int32 bits, char *out); // out has room for 24 characters or more

// The repeat filter counts identical lines in a row instead of printing them. load returns 0; without an item in the
// configuration the filter stays as it is. set also stores it there.
Int32 logmsg_spewfilter_load();
Int32 logmsg_set_spewfilter(Int32 on);
Int32 logmsg_get_spewfilter();

// Whether the writer also hands lines to the operating system's log.
Int32 logmsg_set_syslog_echo(Int32 on);
Int32 logmsg_get_syslog_echo();
