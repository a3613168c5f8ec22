"""hemiray from Python: radiative view factors by ray tracing.

    import hemiray
    model = hemiray.read_model("room.msh")            # or hemiray.Model(nodes, faces, ...)
    result = hemiray.view_factors(model, resolution=40, threads=4)
    result.matrix          # scipy.sparse.csr_matrix, globs x globs
    result.to_vtu("room.vtu", to_globs=[0])

Models, results and runs go through the library itself (the compiled module
_hemiray links its core): the same readers, checks, writers and run as the
hemiray tool and raytracing_lib. Bad input raises ValueError with the library's
message; the process is never ended by bad input.
"""

import os

import numpy as np
import scipy.sparse

from . import _hemiray

__all__ = ["Model", "Result", "read_model", "read_result", "view_factors", "WALL", "MIRROR",
           "PERIODIC", "PERIODIC_SHADOW"]

# Zone types: below 2000 a wall that takes part and scores; the three ray-steering
# types; any other type of 2000 and above absorbs rays without scoring.
WALL = 1
MIRROR = 2007
PERIODIC = 2012
PERIODIC_SHADOW = 2008

_PARAMETER_NAMES = ("param1", "hemisphereResolution", "param3", "param4", "param5", "param6",
                    "param7", "param8", "param9", "param10", "param11", "param12", "param13")


def _default_parameters(resolution):
    parameters = {name: 0 for name in _PARAMETER_NAMES}
    for name in ("param4", "param7", "param10"):
        parameters[name] = 0.0
    parameters["hemisphereResolution"] = int(resolution)
    return parameters


def _integral(values):
    """Flat int32 node indices; anything that would not survive the cast is refused."""
    if values.size and not np.issubdtype(values.dtype, np.integer):
        raise ValueError("face node indices must be integers")
    if values.size and (values.min() < 0 or values.max() >= 2**31):
        raise ValueError("node number out of range")
    return values.astype(np.int32).ravel()


def _face_lists(faces):
    """Node counts and flat node indices from an (F, k) array, a list of node
    lists, or a pair (offsets, indices) in compressed-row form."""
    if isinstance(faces, tuple) and len(faces) == 2:
        offsets = np.asarray(faces[0], dtype=np.int64)
        indices = _integral(np.asarray(faces[1]))
        if (offsets.ndim != 1 or offsets.size == 0 or offsets[0] != 0
                or offsets[-1] != indices.size or np.any(np.diff(offsets) < 0)):
            raise ValueError("face offsets must start at 0, grow and end at the index count")
        return np.diff(offsets).astype(np.int32), indices
    try:
        array = np.asarray(faces)
    except ValueError:  # ragged: faces of different node counts
        lists = [_integral(np.asarray(face)) for face in faces]
        counts = np.array([len(face) for face in lists], dtype=np.int32)
        return counts, np.concatenate(lists) if lists else np.zeros(0, np.int32)
    if array.size == 0:
        return np.zeros(0, np.int32), np.zeros(0, np.int32)
    if array.ndim != 2:
        raise ValueError("faces must be an (F, k) array, a list of node lists or "
                         "(offsets, indices)")
    flat = _integral(array)
    return np.full(array.shape[0], array.shape[1], dtype=np.int32), flat


def _periodic_rows(periodic):
    """(P, 15) rows: zone id, shadow id, type, angle, axis point, axis direction, shift."""
    rows = np.zeros((len(periodic), 15))
    for k, pair in enumerate(periodic):
        rows[k, 0] = pair["zone"]
        rows[k, 1] = pair["shadow"]
        if "shift" in pair:
            rows[k, 10:13] = pair["shift"]
        else:
            rows[k, 2] = 1
            rows[k, 3] = pair["angle"]
            rows[k, 4:7] = pair.get("axis_point", (0.0, 0.0, 0.0))
            rows[k, 7:10] = pair["axis_direction"]
    return rows


def _view(name, doc):
    return property(lambda self: getattr(self._core, name), doc=doc)


class Model:
    """A surface mesh model: nodes, faces in zones, the glob of every face and the
    periodic pairs.

    nodes: (N, 2) or (N, 3) coordinates (2D and axisymmetric models use x, y).
    faces: an (F, k) array of 0-based node indices (k = 2 segments, 3 triangles,
        4 quadrilaterals), a list of node lists (polygons of any size), or a pair
        (offsets, indices) in compressed-row form.
    face_zones: zone index (0 .. Z-1) of every face; default all in zone 0. Faces
        are stored zone by zone, in a stable order.
    zone_types: the type of every zone (WALL = 1 by default, MIRROR, PERIODIC,
        PERIODIC_SHADOW, or any type of 2000 and above that absorbs).
    zone_ids: the identifier of every zone (default 1 .. Z).
    globs: the glob (0-based) of every face, -1 for none; default one glob per wall
        face, in face order.
    periodic: dicts {"zone": id, "shadow": id, "shift": (x, y, z)} for translational
        pairs, {"zone", "shadow", "angle" (radians), "axis_point", "axis_direction"}
        for rotational ones; zones named by identifier.
    dimension: 3, 2 (planar) or 1 (axisymmetric); default 3 for (N, 3) nodes and
        2 for (N, 2).
    resolution: the hemisphere resolution stored with the model.

    The model is checked by the library's in-memory readers at once; whatever they
    refuse raises ValueError with their message.
    """

    part_names = None  # names of the zones, for models made by the importer

    def __init__(self, nodes, faces, *, face_zones=None, zone_types=None, zone_ids=None,
                 globs=None, periodic=(), dimension=None, resolution=20, parameters=None):
        nodes = np.asarray(nodes, dtype=np.float64)
        if nodes.ndim != 2 or nodes.shape[1] not in (2, 3):
            raise ValueError("nodes must have shape (N, 2) or (N, 3)")
        if dimension is None:
            dimension = 3 if nodes.shape[1] == 3 else 2
        nodes3 = np.zeros((nodes.shape[0], 3))
        nodes3[:, :nodes.shape[1]] = nodes
        counts, flat = _face_lists(faces)
        face_count = counts.size

        face_zones = np.zeros(face_count, np.int64) if face_zones is None \
            else np.asarray(face_zones, dtype=np.int64)
        zone_count = int(face_zones.max()) + 1 if face_count else 1
        if zone_types is not None:
            zone_count = max(zone_count, len(zone_types))
        zone_types = np.full(zone_count, WALL, np.int32) if zone_types is None \
            else np.asarray(zone_types, dtype=np.int32)
        zone_ids = np.arange(1, zone_count + 1, dtype=np.int32) if zone_ids is None \
            else np.asarray(zone_ids, dtype=np.int32)
        if face_zones.shape != (face_count,) or (face_count and face_zones.min() < 0):
            raise ValueError("face_zones needs one zone index (0 or more) per face")
        if zone_types.shape != (zone_count,) or zone_ids.shape != (zone_count,):
            raise ValueError(f"zone_types and zone_ids need one entry for each of the "
                             f"{zone_count} zones")

        if globs is None:
            wall = zone_types[face_zones] < 2000
            globs = np.full(face_count, -1, np.int32)
            globs[wall] = np.arange(int(wall.sum()), dtype=np.int32)
        globs = np.asarray(globs, dtype=np.int32)
        if globs.shape != (face_count,):
            raise ValueError(f"globs needs one entry per face ({face_count})")

        # Zones own consecutive faces; reorder the faces zone by zone.
        order = np.argsort(face_zones, kind="stable")
        offsets = np.concatenate([[0], np.cumsum(counts, dtype=np.int64)])
        if not np.array_equal(order, np.arange(face_count)):
            flat = np.concatenate([flat[offsets[f]:offsets[f + 1]] for f in order]) \
                if face_count else flat
            counts, globs, face_zones = counts[order], globs[order], face_zones[order]
        per_zone = np.bincount(face_zones, minlength=zone_count)
        zones = np.zeros((zone_count, 5), np.int32)
        first = 1 + np.concatenate([[0], np.cumsum(per_zone)[:-1]])
        zones[:, 0] = zone_ids
        zones[:, 1] = first
        zones[:, 2] = first + per_zone - 1
        zones[:, 3] = zone_types
        for z in range(zone_count):
            sizes = np.unique(counts[face_zones == z])
            zones[z, 4] = sizes[0] if len(sizes) == 1 and sizes[0] in (2, 3, 4) else 0

        glob_count = int(globs.max()) + 1 if face_count and globs.max() >= 0 else 0
        params = _default_parameters(resolution)
        if parameters:
            params.update(parameters)
        self._adopt(_hemiray.from_arrays([0, 0, zone_count, glob_count, int(dimension)], params,
                                         nodes3, zones, counts, flat, globs,
                                         _periodic_rows(periodic)))

    @classmethod
    def _wrap(cls, core):
        model = cls.__new__(cls)
        model._adopt(core)
        return model

    def _adopt(self, core):
        self._core = core  # the library's model; the arrays below are views of it
        self._sizes = core.sizes
        self._nodes = None
        self._areas = None

    @classmethod
    def from_meshio(cls, mesh, **options):
        """A model from a meshio.Mesh; zones and globs from Gmsh physical groups or
        cell sets. The options are those of hemiray.importer.model_from_mesh."""
        from .importer import model_from_mesh
        return model_from_mesh(mesh, **options)

    # The model as the library holds it.
    @property
    def dimension(self):
        return self._sizes[4]

    @property
    def glob_count(self):
        return self._sizes[3]

    @property
    def resolution(self):
        return self._core.parameters["hemisphereResolution"]

    @property
    def parameters(self):
        """The thirteen run parameters, carried into every result."""
        return self._core.parameters

    @property
    def nodes(self):
        """(N, 3) coordinates; 2D and axisymmetric models have z = 0."""
        if self._nodes is None:
            self._nodes = self._core.nodes
            self._nodes.setflags(write=False)
        return self._nodes

    # Read-only views of the library's arrays.
    face_offsets = _view("face_node_start", "Face f has the nodes "
                         "face_nodes[face_offsets[f]:face_offsets[f + 1]].")
    face_nodes = _view("face_nodes", "0-based node indices, face after face.")
    face_globs = _view("face_globs", "The glob of every face, -1 for none.")
    face_zones = _view("face_zones", "The zone index of every face.")
    zone_ids = _view("zone_ids", "The identifier of every zone.")
    zone_types = _view("zone_types", "The type of every zone.")
    periodic = _view("periodic", "(zone id, shadow id, type, angle, axis point, axis "
                     "direction, shift) of every periodic pair.")

    @property
    def face_count(self):
        return self.face_offsets.size - 1

    @property
    def glob_areas(self):
        """The area of every glob (axisymmetric: the revolved area 2 pi r L)."""
        if self._areas is None:
            self._areas = _hemiray.glob_areas(self._core)
        return self._areas

    def write(self, path, comment="hemiray-python"):
        """Writes the text model (compressed through gzip when the name contains
        ".gz"), replacing the file only once it is complete."""
        if not comment or any(c.isspace() or c in "()\"" for c in comment):
            raise ValueError("the comment must be one word without parentheses or quotes")
        _hemiray.write_model(self._core, os.fspath(path), comment)

    def __repr__(self):
        return (f"hemiray.Model(dimension={self.dimension}, nodes={len(self.nodes)}, "
                f"faces={self.face_count}, zones={len(self.zone_ids)}, globs={self.glob_count})")


def read_model(path):
    """Reads a text model (plain, .gz through gzip, .Z through zcat)."""
    return Model._wrap(_hemiray.read_model(os.fspath(path)))


class Result:
    """View factors of a model: matrix[i, j] is the factor from glob i to glob j
    (rows of globs without a row are empty)."""

    def __init__(self, model, rows, kind="memory"):
        self.model = model
        self.kind = kind  # "memory", or the file's rows: "text", "binary", "hdf5"
        glob_count = model.glob_count
        self.active_globs = np.asarray(rows["active"], dtype=np.int64)
        if np.any(self.active_globs < 0) or np.any(self.active_globs >= glob_count):
            raise ValueError("a row names a glob outside the glob count")
        self.active = np.zeros(glob_count, dtype=bool)
        self.active[self.active_globs] = True
        starts = np.asarray(rows["row_start"], dtype=np.int64)
        counts = np.diff(starts)
        row_of_entry = np.repeat(self.active_globs, counts)
        self.matrix = scipy.sparse.csr_matrix(
            (np.asarray(rows["values"]), (row_of_entry, np.asarray(rows["columns"]))),
            shape=(glob_count, glob_count))
        self.matrix.sort_indices()
        self.areas = model.glob_areas
        self._reciprocity = None

    @property
    def row_sums(self):
        """Sum of every glob's row: 1 for a glob that sees only a closed enclosure."""
        return np.asarray(self.matrix.sum(axis=1)).ravel()

    @property
    def reciprocity_residuals(self):
        """A_i F_ij - A_j F_ji over the pairs of globs that both have rows."""
        exchanged = self._exchanged()
        return (exchanged - exchanged.T).tocsr()

    @property
    def reciprocity(self):
        """Per glob, the largest |A_i F_ij - A_j F_ji| / (A_i F_ij) over its
        partners j that have rows (0 for a glob without any)."""
        if self._reciprocity is None and self.model.glob_count == 0:
            self._reciprocity = np.zeros(0)
        if self._reciprocity is None:
            exchanged = self._exchanged()
            exchanged.eliminate_zeros()
            exchanged = exchanged.multiply(exchanged > 0).tocsr()
            backward = exchanged.T.tocsr().multiply(exchanged != 0).tocsr()
            relative = (exchanged - backward).multiply(exchanged.power(-1))
            self._reciprocity = np.asarray(abs(relative).max(axis=1).todense()).ravel()
        return self._reciprocity

    def _exchanged(self):
        with_rows = scipy.sparse.diags(self.active.astype(np.float64))
        return (scipy.sparse.diags(self.areas) @ self.matrix @ with_rows).tocsr()

    def repair(self, enclosure="closed"):
        """The factors repaired by the library (as `hemiray repair`, equal shares):
        exact reciprocity, and rows summing to 1 ("closed") or capped at 1 ("open").
        Returns the repaired Result and a report of residuals before and after."""
        if enclosure not in ("closed", "open"):
            raise ValueError("enclosure must be 'closed' or 'open'")
        m = self.matrix
        start, columns, values, report = _hemiray.repair(
            m.indptr.astype(np.int64), m.indices.astype(np.int32), m.data.astype(np.float64),
            np.asarray(self.areas, dtype=np.float64), self.active.astype(np.uint8),
            enclosure == "open")
        square = scipy.sparse.csr_matrix((values, columns, start), shape=m.shape)[self.active_globs]
        rows = {"active": self.active_globs, "row_start": square.indptr, "columns": square.indices,
                "values": square.data}
        return Result(self.model, rows, self.kind), report

    def to_vtu(self, path, to_globs=(), **options):
        """Writes the faces with glob, glob area, row sum, reciprocity and the factors
        to the globs in to_globs as cell data (meshio's VTU writer); fields={name:
        one value per glob} adds more."""
        from .export import write_vtu
        write_vtu(self, path, to_globs=to_globs, **options)

    def __repr__(self):
        return (f"hemiray.Result(globs={self.model.glob_count}, rows={self.active_globs.size}, "
                f"factors={self.matrix.nnz})")


def view_factors(model, resolution=None, threads=None, sampling="team", seed=0,
                 progress=False):
    """Computes the view factors of the model with the library's run.

    resolution: hemisphere resolution (default: the model's own).
    threads: worker threads (default: every core).
    sampling: "team" (also "default"): the hemicube is turned about each 3D face
        normal by the library's per-thread generators, started afresh for every
        call; rows are reproducible for a given thread count and equal those of
        the hemiray tool run with it. "per-face": each face draws its turn from a
        stream keyed by (key, face), so rows depend on nothing of the schedule and
        equal `hemiray run --sampling per-face --seed SEED` on any thread count.
    seed: that key, a whole number from 0 to 2^64 - 1 (the name matches the tool's option).
    progress: print the library's console lines.
    """
    if sampling not in ("team", "default", "per-face"):
        raise ValueError(f"sampling={sampling!r}: use 'team' or 'per-face'")
    if not 0 <= int(seed) < 2 ** 64:
        raise ValueError("seed must be a whole number from 0 to 2^64 - 1")
    if not isinstance(model, Model):
        raise TypeError("view_factors needs a hemiray.Model")
    if threads is not None and threads < 1:
        raise ValueError("threads must be at least 1")
    rows = _hemiray.compute(model._core, 0 if threads is None else int(threads),
                            -1 if resolution is None else int(resolution), bool(progress),
                            sampling == "per-face", int(seed))
    return Result(model, rows)


def read_result(path):
    """Reads a result: text or binary rows, plain or compressed, or HDF5."""
    core, rows, kind = _hemiray.read_result(os.fspath(path))
    return Result(Model._wrap(core), rows, kind)
