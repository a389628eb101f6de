/**
 * \file ruvo_debug.h
 * \brief Diagnostics: the debug mask read from the marker files, and the optional log file.
 *
 * All of the library's messages go to standard output. Video and on-screen-display lines
 * read "[qvl_disp_corvi] function(line) text" and print as the process-wide debug mask
 * says: 0 (the default) prints errors and info; -3 prints everything and opens a log file;
 * any other value is a bit mask (0x1 error, 0x4 info, 0x8 trace). Audio lines read
 * "[function(): line]text" and always print.
 *
 * These functions have C++ linkage. None takes a lock: the mask is written only while a
 * video output is being opened and read by every thread that prints.
 */
#pragma once

#ifndef RUVO_EXPORT
/// Marks a function of the library's exported interface.
#define RUVO_EXPORT __attribute__((visibility("default")))
#endif

/**
 * Reads the debug mask from the marker file "/tmp/RUVO", else "/mnt/RUVO" (up to 16
 * bytes of decimal text each; a marker holding 0, no number, or nothing is skipped, and a
 * shorter second marker is read over what the first left), then calls ruvo_dbg_enable().
 * With no marker the mask keeps its value. quarvel_video_output_open() calls it on every
 * open.
 *
 * Thread: call it while no other thread prints through the library.
 */
RUVO_EXPORT void ruvo_interface_debug_init();

/**
 * In all mode (mask -3) opens the log file "ruvo-interface.log" ("w+": created or
 * truncated) on the first of "/media/sda1", "/media/sda", "media/sdb" (relative to the
 * working directory), "/mnt/usb/sda1", "/mnt/usb/sda", "/mnt/usb/sdb", "/tmp" that exists,
 * and prints "[qvl_disp] detect mnt is:..." and whether the open worked. When none exists
 * the mask falls back to 0. In any other mode it does nothing. A log file opened before is
 * not closed. The library itself writes nothing to the file (see messageWrite2File()).
 *
 * Thread: as ruvo_interface_debug_init().
 */
RUVO_EXPORT void ruvo_dbg_enable();

/**
 * Closes the log file if one is open. Nothing in the library calls it.
 *
 * Thread: must not overlap ruvo_dbg_enable() or messageWrite2File().
 */
RUVO_EXPORT void ruvo_dbg_disable();

/**
 * Appends a line to the log file, if one is open (else does nothing): a local-time header
 * "[HH:MM:SS.mmm] " (left out when the local time cannot be worked out), then the text.
 * No line end is added and the stream is not flushed. Nothing in the library calls it.
 *
 * \param str the text, NUL-terminated; read during the call only.
 * \param len not used.
 *
 * Thread: one caller at a time (the header buffer is shared).
 */
RUVO_EXPORT void messageWrite2File(char* str, int len);

/**
 * The print check of the audio lines: they print when bit 0x1 of the result is set.
 *
 * \return 1, whatever the debug mask: audio lines always print.
 *
 * Thread: any.
 */
RUVO_EXPORT int DBG_ChkPrtLevel();
