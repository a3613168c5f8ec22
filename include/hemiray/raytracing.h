/*
 * hemiray: radiative view factors between the boundary faces of a mesh, by ray
 * tracing. This is the library's whole public interface: one C function and the
 * layout of the in-memory model it can take instead of a file.
 *
 * A call reads a model (a text mesh file, or the same data in memory), computes
 * one sparse row of view factors for every active glob (a cluster of boundary
 * faces), and writes the view-factor file under the same name: the model is
 * repeated in the input syntax and the rows follow in section 308 (text rows) or
 * 1308 (binary rows). See README.md and docs/ for the file formats.
 *
 * Console: progress and timing lines, each starting with "#", go to standard
 * output; failures go to standard error as one line starting with "error: ".
 * Malformed mesh text, and a malformed in-memory block, is fatal to the whole
 * process: the library prints "file i/o error: <message>" on standard error and
 * calls exit(1). So is a wall face whose glob id is at or above the glob count
 * ("file i/o error: glob id at or above the glob count"), found once the model is
 * read, before any output is opened.
 *
 * Hemisphere resolution R: the cost of a run is the directions each face shoots,
 * 3 R^2 on the hemicube (3D and axisymmetric runs) and 2 R on the planar fan. A run
 * takes at most 3 * 2048^2 = 12,582,912 directions per face: R up to 2048 in 3D
 * and axisymmetric runs, up to 6,291,456 in planar runs. A resolution below 0 or
 * above the bound fails with "error: hemisphere resolution R is outside 0 to MAX".
 *
 * Engine: 3D runs trace rays through a bounding-volume hierarchy that gives the
 * BSP tree's hits bit for bit (rays it cannot certify are traced by the tree), so
 * the result does not depend on the choice. The environment variable
 * HEMIRAY_ENGINE, read at every call, chooses: "bsp" traces every ray by the tree,
 * "bvh" (also when unset or empty) uses the hierarchy; any other value prints one
 * "warning: " line on standard error and uses the hierarchy.
 */
#ifndef HEMIRAY_RAYTRACING_H
#define HEMIRAY_RAYTRACING_H

#include <stdbool.h>
#include <stdint.h>

#if defined(HEMIRAY_BUILDING_LIBRARY)
#define HEMIRAY_API __attribute__((visibility("default")))
#else
#define HEMIRAY_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * In-memory input
 * ===============
 * With readFromFile 0 the model comes from meshData instead of a text file. All
 * values are little-endian; every struct below is laid out by its natural
 * alignment with no padding (the offsets are given in the comments), so a block
 * can also be written by hand, byte by byte, or read from a file. The library reads
 * blocks with unaligned loads: meshData needs no particular alignment.
 *
 * Two families, chosen by directFields:
 *
 *   directFields false: a PACKED block. One contiguous buffer: a hemiray_block_head
 *     with tag HEMIRAY_PACKED_TAG, then the six arrays in this order, each right
 *     after the previous one (8-byte values first, so nothing needs padding):
 *        nodes           nodeCount x 3 doubles (x, y, z)            24 bytes each
 *        periodic        periodicCount x hemiray_periodic_pair      96 bytes each
 *        zones           faceZoneCount x hemiray_face_zone          20 bytes each
 *        faceNodeCounts  faceCount x int32                           4 bytes each
 *        faceNodes       faceNodeCount x int32                       4 bytes each
 *        faceGlobs       faceCount x int32                           4 bytes each
 *     totalBytes must equal HEMIRAY_PACKED_BYTES(...) of the head's counts. A
 *     packed block can be kept in a file; "hemiray block MODEL -o FILE" writes one
 *     from a text model.
 *
 *   directFields true: a DIRECT block, hemiray_direct_block: the same head with tag
 *     HEMIRAY_DIRECT_TAG and totalBytes = sizeof(hemiray_direct_block) (168),
 *     followed by six pointers to the host's own arrays, of the element types and
 *     lengths listed above. Nothing is copied by the host; the library reads the
 *     arrays during the call only. It cannot check an array's length: the host
 *     vouches that each array holds as many elements as its count says.
 *
 * The first five int32 of both are the size values of the text form's size
 * section; then the parameter block (hemiray_parameters) exactly as a host hands it
 * over. Then the counts of the arrays:
 *   nodeCount      nodes; face nodes are 0-based indices below nodeCount.
 *   faceZoneCount  face zones (one per face section of the text form), in order.
 *                  Zone k holds max(0, lastIndex - firstIndex + 1) faces, which
 *                  follow those of zone k-1 in faceNodeCounts and faceGlobs; the
 *                  zones' face counts add up to faceCount.
 *   faceCount      faces of all zones.
 *   faceNodeCount  node references of all faces: the sum of faceNodeCounts.
 *   periodicCount  periodic zone pairs.
 * Per face: faceNodeCounts gives its number of nodes (0 for a face without nodes;
 * exactly the element type for zones of element type 2, 3 and 4), faceNodes its
 * 0-based node indices, face after face, and faceGlobs its glob, -1 for none
 * (faces of mirror and periodic zones have none). Nodes of two-dimensional and
 * axisymmetric models use x and y; z is not read unless dimension is 3.
 *
 * The model is filled as from the text form: zones are added in order, faces of
 * zones of type below 2000 or 2007, 2008, 2012 that have nodes also take part in
 * tracing, the first zone with a given zoneId is the one that lookups find, and
 * each periodic pair sets zone `zoneId` and its shadow exactly as a periodic
 * section does. The result file repeats the model as the text path does, except
 * that its node section carries `dimension` coordinates per node (so one, x, for
 * an axisymmetric block).
 *
 * A bad block is fatal to the process like malformed mesh text: the library prints
 * "file i/o error: <message>" on standard error and calls exit(1), before anything
 * is read past the block. The messages:
 *   "mesh block tag is unknown"                     tag is neither of the two tags
 *   "mesh block family does not match directFields" packed tag with directFields
 *                                                   true, or direct tag with false
 *   "mesh block reserved field is not 0"
 *   "mesh block has a negative count"               any of the five counts < 0
 *   "mesh block counts overrun its length"          totalBytes is smaller than the
 *                                                   head, or than the counts need
 *   "mesh block is longer than its counts need"     totalBytes is larger
 *   "mesh block array pointer is null"              direct block, count > 0
 *   "element type not supported"                    not 0, 2, 3, 4 or 5
 *   "invalid id index"                              a periodic pair names a zone
 *                                                   that no face zone has
 *   "zone faces overrun the face count"             the zones hold more faces
 *   "zone faces fall short of the face count"       the zones hold fewer faces
 *   "face node count is negative"
 *   "face node count does not match the element type"
 *   "face nodes overrun the face node count"        the faces hold more nodes
 *   "face nodes fall short of the face node count"  the faces hold fewer nodes
 *   "node number out of range"                      not 0 <= index < nodeCount
 *   "node coordinate is not a finite number"        an infinity or a NaN
 * A null meshData is a failed call ("error: no mesh data given"), not a bad block.
 * Pointers in a direct block take 8 bytes: direct blocks exist on 64-bit hosts.
 */

/* The tags of the two families: the bytes "HRBP" and "HRBD" read as little-endian
 * uint32. */
#define HEMIRAY_PACKED_TAG 0x50425248u
#define HEMIRAY_DIRECT_TAG 0x44425248u

/* The thirteen run parameters in the host's order: three doubles, then ten int32.
 * param13 stands before param12. 64 bytes. */
typedef struct hemiray_parameters {
    double param4;                /*  0 */
    double param7;                /*  8 */
    double param10;               /* 16 */
    int32_t param1;               /* 24 */
    int32_t hemisphereResolution; /* 28 */
    int32_t param3;               /* 32 */
    int32_t param5;               /* 36 */
    int32_t param6;               /* 40 */
    int32_t param8;               /* 44 */
    int32_t param9;               /* 48 */
    int32_t param11;              /* 52 */
    int32_t param13;              /* 56 */
    int32_t param12;              /* 60 */
} hemiray_parameters;

/* The head of both block families. 120 bytes. */
typedef struct hemiray_block_head {
    int32_t size1;                 /*   0  size value 1, written to the result */
    int32_t size2;                 /*   4  size value 2, written to the result */
    int32_t zoneCount;             /*   8  size value 3, written to the result */
    int32_t globCount;             /*  12  size value 4: the width of every row */
    int32_t dimension;             /*  16  1 axisymmetric, 2 planar, 3 three-dimensional */
    uint32_t tag;                  /*  20  HEMIRAY_PACKED_TAG or HEMIRAY_DIRECT_TAG */
    hemiray_parameters parameters; /*  24 */
    uint64_t totalBytes;           /*  88  length of the whole block in bytes */
    int32_t nodeCount;             /*  96 */
    int32_t faceZoneCount;         /* 100 */
    int32_t faceCount;             /* 104 */
    int32_t faceNodeCount;         /* 108 */
    int32_t periodicCount;         /* 112 */
    int32_t reserved;              /* 116  0 */
} hemiray_block_head;

/* One face zone: the header of a face section. 20 bytes. */
typedef struct hemiray_face_zone {
    int32_t zoneId;      /*  0 */
    int32_t firstIndex;  /*  4 */
    int32_t lastIndex;   /*  8  the zone holds max(0, lastIndex - firstIndex + 1) faces */
    int32_t zoneType;    /* 12  below 2000 wall; 2007 mirror; 2012 periodic, 2008 its shadow */
    int32_t elementType; /* 16  0 mixed, 2 line, 3 triangle, 4 quadrilateral, 5 polygon */
} hemiray_face_zone;

/* One periodic zone pair: the data of a periodic section. 96 bytes. */
typedef struct hemiray_periodic_pair {
    int32_t zoneId;          /*  0 */
    int32_t shadowZoneId;    /*  4 */
    int32_t periodicType;    /*  8  0 translational (shift), else rotational (angle, axis) */
    int32_t reserved;        /* 12  not read; write 0 */
    double angle;            /* 16  rotational: radians */
    double axisPoint[3];     /* 24  rotational: a point on the axis */
    double axisDirection[3]; /* 48  rotational: the unit axis direction */
    double shift[3];         /* 72  translational */
} hemiray_periodic_pair;

/* The direct family: the head and pointers to the host's arrays. 168 bytes. */
typedef struct hemiray_direct_block {
    hemiray_block_head head;               /*   0  tag HEMIRAY_DIRECT_TAG, totalBytes 168 */
    const double* nodes;                   /* 120  3 x nodeCount */
    const hemiray_periodic_pair* periodic; /* 128  periodicCount */
    const hemiray_face_zone* zones;        /* 136  faceZoneCount */
    const int32_t* faceNodeCounts;         /* 144  faceCount */
    const int32_t* faceNodes;              /* 152  faceNodeCount */
    const int32_t* faceGlobs;              /* 160  faceCount */
} hemiray_direct_block;

/* Length in bytes of a packed block with these counts. */
#define HEMIRAY_PACKED_BYTES(nodeCount, periodicCount, faceZoneCount, faceCount, faceNodeCount) \
    ((uint64_t)120 + (uint64_t)24 * (uint64_t)(nodeCount) +                                     \
     (uint64_t)96 * (uint64_t)(periodicCount) + (uint64_t)20 * (uint64_t)(faceZoneCount) +      \
     (uint64_t)8 * (uint64_t)(faceCount) + (uint64_t)4 * (uint64_t)(faceNodeCount))

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
 *  7 meshData      in-memory model (used only when readFromFile is zero): a
 *                  packed block or a direct block, see "In-memory input" below.
 *  8 headerData    zero-terminated text written between the quotes of the result
 *                  file's first line: (0 "<headerData>"), or (-1 "...") with headerFlag.
 *  9 headerFlag    see headerData.
 * 10 directFields  in-memory input only: false: meshData is a packed block; true:
 *                  meshData is a direct block. Both fill the same model.
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
HEMIRAY_API int raytracing_lib(int binaryOutput, const char* fileName, void* unused, int useOpenMP,
                               int numThreads, int readFromFile, const void* meshData,
                               const char* headerData, bool headerFlag, bool directFields,
                               int reserved);

#ifdef __cplusplus
}
#endif

#endif /* HEMIRAY_RAYTRACING_H */
