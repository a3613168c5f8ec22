// Names of the groups, datasets and attributes of an HDF5 result file, shared by
// the writer and the readers. docs/hdf5-results.md describes the layout.
#pragma once

namespace hemiray::hdf5layout {

inline constexpr char formatName[] = "hemiray view factors";
inline constexpr int formatVersion = 1;

// Attributes of the root group.
inline constexpr char format[] = "format";
inline constexpr char version[] = "formatVersion";
inline constexpr char size1[] = "size1";
inline constexpr char size2[] = "size2";
inline constexpr char zoneCount[] = "zoneCount";
inline constexpr char globCount[] = "globCount";
inline constexpr char dimension[] = "dimension";
inline constexpr char headerText[] = "headerText";
inline constexpr char headerFlag[] = "headerFlag";

// Group whose attributes are the thirteen run parameters, named as in RunParameters.
inline constexpr char parameters[] = "parameters";

inline constexpr char nodes[] = "nodes";  // float64 [node count, coordinates per node]

inline constexpr char faces[] = "faces";
inline constexpr char faceNodeStart[] = "nodeStart";
inline constexpr char faceNodes[] = "nodes";
inline constexpr char faceGlob[] = "glob";
inline constexpr char faceId[] = "id";
inline constexpr char faceZone[] = "zone";

inline constexpr char zones[] = "zones";
inline constexpr char zoneId[] = "id";
inline constexpr char zoneFirst[] = "first";
inline constexpr char zoneLast[] = "last";
inline constexpr char zoneType[] = "type";
inline constexpr char zoneElementType[] = "elementType";
inline constexpr char zoneFaceStart[] = "faceStart";
inline constexpr char periodicType[] = "periodicType";
inline constexpr char periodicShadow[] = "periodicShadow";
inline constexpr char periodicAngle[] = "periodicAngle";
inline constexpr char periodicAxisA[] = "periodicAxisA";
inline constexpr char periodicAxisB[] = "periodicAxisB";
inline constexpr char periodicShift[] = "periodicShift";

// float64 [globCount]: the surface area of every glob (axisymmetric: revolved).
inline constexpr char globArea[] = "globArea";

// The rows: a compressed-sparse-row matrix with one row per active glob.
inline constexpr char viewFactors[] = "viewFactors";
inline constexpr char activeGlobs[] = "activeGlobs";
inline constexpr char rowStart[] = "rowStart";
inline constexpr char columns[] = "columns";
inline constexpr char values[] = "values";
inline constexpr char rowWidth[] = "globCount";  // attribute of viewFactors

}  // namespace hemiray::hdf5layout
