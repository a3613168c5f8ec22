/*
 * hemiray: radiative view factors between the boundary faces of a mesh, by ray
 * tracing. This is the library's whole public interface: one C function.
 *
 * A call reads a model (a text mesh file, or the same data in memory), computes
 * one sparse row of view factors for every active glob (a cluster of boundary
 * faces), and writes the view-factor file under the same name: the model is
 * repeated in the input syntax and the rows follow in section 308 (text rows) or
 * 1308 (binary rows). See README.md and docs/ for the file formats.
 *
 * Console: progress and timing lines, each starting with "#", go to standard
 * output; failures go to standard error as one line starting with "error: ".
 * Malformed mesh text is fatal to the whole process: the library prints
 * "file i/o error: <message>" on standard error and calls exit(1).
 */
#ifndef HEMIRAY_RAYTRACING_H
#define HEMIRAY_RAYTRACING_H

#include <stdbool.h>

#if defined(HEMIRAY_BUILDING_LIBRARY)
#define HEMIRAY_API __attribute__((visibility("default")))
#else
#define HEMIRAY_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Computes the view factors of one model and writes the result file.
 *
 *  1 binaryOutput  nonzero: rows are written in binary form (section 1308) and the
 *                  file is opened in binary mode; zero: text rows (section 308).
 *  2 fileName      zero-terminated name of the input file; the result is written
 *                  under the same name, replacing it. The name selects the input:
 *                  containing ".gz" anywhere: read through "gzip -dc"; else
 *                  containing ".Z": through "zcat"; else a plain file. On output a
 *                  name containing ".h5" gets an HDF5 result instead of the
 *                  text file (docs/hdf5-results.md); else a name containing
 *                  ".gz" is written through "gzip -fc". The decompressors are
 *                  started without a shell, so any character in the name is
 *                  taken literally. The caller's buffer is copied.
 *  3 unused        never read; keeps the argument positions.
 *  4 useOpenMP     nonzero: as many worker slots as omp_get_max_threads(); zero: one.
 *  5 numThreads    threads of each parallel region; values below 2 mean 1.
 *  6 readFromFile  nonzero: parameters and mesh come from fileName; zero: from
 *                  meshData, and no file is read.
 *  7 meshData      in-memory model (used only when readFromFile is zero).
 *  8 headerData    zero-terminated text written between the quotes of the result
 *                  file's first line: (0 "<headerData>"), or (-1 "...") with headerFlag.
 *  9 headerFlag    see headerData.
 * 10 directFields  in-memory input only: selects which of the two block readers fills
 *                  the model.
 * 11 reserved      never read.
 *
 * Returns 1 on success and 0 on failure. Every failure prints one line on
 * standard error:
 *   "error: couldn't open input file: <name>"   the input cannot be opened
 *   "error: reading size section!"              the size section is malformed
 *   "error: couldn't open output file: <name>"  the result cannot be written
 *   "error: couldn't calculate view factors!"   after any failure of the run itself
 *                                               (unreadable parameter section included)
 * A failed call leaves the input file as it was. Calls may be repeated in one
 * process; they must not run concurrently.
 */
HEMIRAY_API int raytracing_lib(int binaryOutput, const char* fileName, void* unused,
                               int useOpenMP, int numThreads, int readFromFile,
                               const void* meshData, const char* headerData, bool headerFlag,
                               bool directFields, int reserved);

#ifdef __cplusplus
}
#endif

#endif /* HEMIRAY_RAYTRACING_H */
