"""Models from the meshes engineers already have: anything meshio reads (Gmsh,
STL, OBJ, VTU, ...), with zones and globs from Gmsh physical groups or cell sets.

A face is seen and hit only from the side its area vector points to (right-hand
rule over its nodes in 3D; the segment turned clockwise in 2D). The importer
therefore checks that every surface is oriented consistently, that a closed
surface faces its inside (and a closed obstacle inside another faces outward,
into the space around it), and can fix both (flip=True). Thin obstacles can be
made two-sided, and coarse faces subdivided so that the rays, which start at
face centroids, sample them finely enough. Coordinates are taken as they are.
"""

import math

import numpy as np

from . import WALL, Model

SURFACE_CELLS = {"triangle": 3, "triangle6": 3, "triangle7": 3, "quad": 4, "quad8": 4,
                 "quad9": 4, "polygon": None}
SEGMENT_CELLS = {"line": 2, "line3": 2}
# The faces of volume cells, each ordered so that its area vector points out of
# the cell (VTK's node order, which meshio keeps).
VOLUME_FACES = {
    "tetra": [[0, 2, 1], [0, 1, 3], [1, 2, 3], [2, 0, 3]],
    "hexahedron": [[0, 3, 2, 1], [4, 5, 6, 7], [0, 1, 5, 4], [1, 2, 6, 5], [2, 3, 7, 6],
                   [3, 0, 4, 7]],
}


class Part:
    """A zone of the imported model: a named group of faces."""

    def __init__(self, name, zone_type=WALL):
        self.name = name
        self.zone_type = zone_type
        self.faces = []        # node index arrays
        self.face_globs = []   # glob key of every face: faces with one key share a glob


def _cell_labels(mesh, block_index, count, dim):
    """The part name of every cell of one block: its Gmsh physical group, else the
    first cell set that holds it, else None."""
    physical = mesh.cell_data.get("gmsh:physical")
    if physical is not None:
        names = {int(tag): name for name, (tag, d) in
                 ((n, v[:2]) for n, v in mesh.field_data.items()) if int(d) == dim}
        tags = np.asarray(physical[block_index]).astype(int)
        return [names.get(tag, f"physical {tag}") for tag in tags]
    labels = [None] * count
    for name, blocks in mesh.cell_sets.items():
        if name.startswith("gmsh:") or block_index >= len(blocks) or blocks[block_index] is None:
            continue
        for cell in np.asarray(blocks[block_index]).astype(int).ravel():
            if 0 <= cell < count and labels[cell] is None:
                labels[cell] = name
    return labels


def _volume_boundary(mesh):
    """The part "boundary": the faces of volume cells that no other cell shares,
    turned to face into the volume, the space that radiates."""
    faces = {}
    for block in mesh.cells:
        for local in VOLUME_FACES.get(block.type, []):
            for face in np.asarray(block.data)[:, local]:
                key = tuple(sorted(face))
                faces[key] = None if key in faces else face
    part = Part("boundary")
    part.faces = [face[::-1].astype(np.int64) for face in faces.values() if face is not None]
    return [part]


def _collect_parts(mesh, dimension):
    """Parts from the surface cells (3D) or the segments (planar, axisymmetric);
    a mesh of volume cells alone gives its boundary."""
    if dimension == 3 and not any(block.type in SURFACE_CELLS for block in mesh.cells):
        return _volume_boundary(mesh)
    wanted = SURFACE_CELLS if dimension == 3 else SEGMENT_CELLS
    parts = {}
    for index, block in enumerate(mesh.cells):
        if block.type not in wanted:
            continue
        corners = wanted[block.type]
        data = np.asarray(block.data)
        labels = _cell_labels(mesh, index, len(data), 2 if dimension == 3 else 1)
        for cell, label in zip(data, labels):
            name = label if label is not None else "surface"
            part = parts.setdefault(name, Part(name))
            part.faces.append(np.asarray(cell[:corners] if corners else cell, dtype=np.int64))
    if not parts:
        kinds = "triangles, quadrilaterals or polygons" if dimension == 3 else "line segments"
        raise ValueError(f"the mesh holds no {kinds}")
    return list(parts.values())


def _shape_dimension(mesh):
    if any(block.type in SURFACE_CELLS or block.type in VOLUME_FACES for block in mesh.cells):
        return 3
    if any(block.type in SEGMENT_CELLS for block in mesh.cells):
        return 2
    raise ValueError("the mesh holds no surface faces, tetrahedra, hexahedra or line segments")


# Orientation ---------------------------------------------------------------

def _boundary(face, dimension):
    """The keys a face shares with its neighbours and the direction it runs them:
    edges in 3D, end points in 2D. Two neighbours agree when they run a shared key
    in opposite directions."""
    if dimension == 3:
        for a, b in zip(face, np.roll(face, -1)):
            if a != b:
                yield (min(a, b), max(a, b)), (1 if a < b else -1)
    elif len(face) >= 2:
        yield (face[0],), -1
        yield (face[1],), 1


def _signed_size(points, faces, dimension):
    """Signed volume (3D) or area (2D) enclosed: positive when the area vectors
    point outward."""
    total = 0.0
    for face in faces:
        p = points[face]
        if dimension == 3:
            for k in range(1, len(face) - 1):
                total += np.dot(p[0], np.cross(p[k], p[k + 1])) / 6.0
        elif len(face) >= 2:
            total += (p[0][0] * p[1][1] - p[1][0] * p[0][1]) / 2.0
    return total


def orient(parts, points, dimension, flip=False):
    """Checks (and with flip=True fixes) the orientation of every connected surface.
    Raises ValueError naming the parts of each surface that is wrong."""
    # Neighbours are found through coinciding coordinates, so meshes whose parts
    # repeat their shared nodes (STL, separately meshed parts) are handled too.
    _, canonical = np.unique(points, axis=0, return_inverse=True)
    canonical = canonical.ravel()
    faces = [(p, k) for p, part in enumerate(parts) for k in range(len(part.faces))]
    keys = {}
    for index, (p, k) in enumerate(faces):
        for key, direction in _boundary(canonical[parts[p].faces[k]], dimension):
            keys.setdefault(key, []).append((index, direction))

    neighbours = [[] for _ in faces]
    for shared in keys.values():
        if len(shared) == 2:
            (f, df), (g, dg) = shared
            neighbours[f].append((g, df == dg))
            neighbours[g].append((f, df == dg))

    problems = []
    reverse = np.zeros(len(faces), dtype=bool)
    seen = np.zeros(len(faces), dtype=bool)
    components = []
    for start in range(len(faces)):
        if seen[start]:
            continue
        seen[start] = True
        members, queue = [start], [start]
        while queue:
            f = queue.pop()
            for g, same in neighbours[f]:
                if not seen[g]:
                    seen[g] = True
                    reverse[g] = reverse[f] ^ same
                    members.append(g)
                    queue.append(g)
        members = np.array(members)
        # The larger group keeps its orientation.
        if reverse[members].sum() * 2 > len(members):
            reverse[members] = ~reverse[members]
        closed = all(len(keys[key]) == 2 for f in members
                     for key, _ in _boundary(canonical[parts[faces[f][0]].faces[faces[f][1]]],
                                             dimension))
        components.append((members, closed))

    def names(members):
        return ", ".join(sorted({parts[faces[f][0]].name for f in members}))

    for members, _ in components:
        disagree = int(reverse[members].sum())
        if disagree:
            problems.append(f"orientation is mixed in the surface of parts {names(members)}: "
                            f"{disagree} of {len(members)} faces face the other way than their "
                            "neighbours")

    def oriented(f):
        p, k = faces[f]
        face = parts[p].faces[k]
        return face[::-1] if reverse[f] else face

    # A closed surface inside the box of another one is an obstacle: it is seen from
    # outside. Nesting parity decides which way each closed surface must face.
    def corners(members):
        return points[np.concatenate([parts[faces[f][0]].faces[faces[f][1]] for f in members])]

    closed = [(members, corners(members)) for members, is_closed in components if is_closed]
    boxes = [(pts.min(axis=0), pts.max(axis=0)) for _, pts in closed]
    for i, (members, _) in enumerate(closed):
        depth = sum(1 for j, (lo, hi) in enumerate(boxes) if j != i
                    and np.all(lo <= boxes[i][0]) and np.all(boxes[i][1] <= hi)
                    and np.any(lo < boxes[i][0]) | np.any(boxes[i][1] < hi))
        size = _signed_size(points, [oriented(f) for f in members], dimension)
        obstacle = depth % 2 == 1
        if size != 0 and (size > 0) != obstacle:
            reverse[members] = ~reverse[members]
            if obstacle:
                problems.append(f"the closed obstacle made of parts {names(members)} faces its "
                                "inside; its faces must face outward, into the space around it")
            else:
                problems.append(f"the closed surface made of parts {names(members)} faces "
                                "outward; its faces must face its inside")

    if problems and not flip:
        raise ValueError("; ".join(problems) + " (--flip orients them)")
    for f in np.flatnonzero(reverse):
        p, k = faces[f]
        parts[p].faces[k] = parts[p].faces[k][::-1].copy()
    return problems


# Subdivision ---------------------------------------------------------------

def _split_face(points, face, size, new_points):
    """Pieces of one face no longer than size along any edge, as node index arrays
    (new nodes are appended to new_points, numbered after points)."""
    def add(p):
        new_points.append(p)
        return len(points) + len(new_points) - 1

    corners = points[face]
    if len(face) == 2:
        n = max(1, math.ceil(np.linalg.norm(corners[1] - corners[0]) / size))
        ids = [face[0]] + [add(corners[0] + (corners[1] - corners[0]) * t / n)
                           for t in range(1, n)] + [face[1]]
        return [np.array(ids[i:i + 2]) for i in range(n)]
    if len(face) == 4:
        a, b, c, d = corners
        nu = max(1, math.ceil(max(np.linalg.norm(b - a), np.linalg.norm(c - d)) / size))
        nv = max(1, math.ceil(max(np.linalg.norm(d - a), np.linalg.norm(c - b)) / size))
        if nu == 1 and nv == 1:
            return [face]
        grid = {(0, 0): face[0], (nu, 0): face[1], (nu, nv): face[2], (0, nv): face[3]}
        for i in range(nu + 1):
            for j in range(nv + 1):
                if (i, j) not in grid:
                    u, v = i / nu, j / nv
                    grid[i, j] = add((1 - u) * (1 - v) * a + u * (1 - v) * b + u * v * c
                                     + (1 - u) * v * d)
        return [np.array([grid[i, j], grid[i + 1, j], grid[i + 1, j + 1], grid[i, j + 1]])
                for i in range(nu) for j in range(nv)]
    pieces = []
    for k in range(1, len(face) - 1):  # polygons: a fan of triangles
        tri = np.array([face[0], face[k], face[k + 1]])
        a, b, c = points[tri]
        n = max(1, math.ceil(max(np.linalg.norm(b - a), np.linalg.norm(c - b),
                                 np.linalg.norm(a - c)) / size))
        if n == 1:
            pieces.append(tri)
            continue
        grid = {(0, 0): tri[0], (n, 0): tri[1], (0, n): tri[2]}
        for i in range(n + 1):
            for j in range(n + 1 - i):
                if (i, j) not in grid:
                    grid[i, j] = add(a + (b - a) * (i / n) + (c - a) * (j / n))
        for i in range(n):
            for j in range(n - i):
                pieces.append(np.array([grid[i, j], grid[i + 1, j], grid[i, j + 1]]))
                if i + j + 2 <= n:
                    pieces.append(np.array([grid[i + 1, j], grid[i + 1, j + 1], grid[i, j + 1]]))
    return pieces


def subdivide(parts, points, size):
    """Splits every face with an edge longer than size; the pieces keep the glob of
    the face they come from. Returns the grown node array."""
    if not size > 0:
        raise ValueError("the subdivision size must be positive")
    new_points = []
    for part in parts:
        faces, globs = [], []
        for face, glob in zip(part.faces, part.face_globs):
            pieces = _split_face(points, face, size, new_points)
            faces.extend(pieces)
            globs.extend([glob] * len(pieces))
        part.faces, part.face_globs = faces, globs
    return np.vstack([points, np.array(new_points)]) if new_points else points


# The whole import ----------------------------------------------------------

def model_from_mesh(mesh, *, glob_per_face=False, flip=False, two_sided=(), subdivide_size=None,
                    zone_types=None, dimension=None, resolution=20, report=None):
    """A hemiray.Model from a meshio.Mesh.

    Zones: one per Gmsh physical group or cell set (faces in none form the zone
    "surface"; a mesh of tetrahedra or hexahedra alone gives its boundary as the
    zone "boundary", facing into the volume), all walls unless zone_types
    {name: type} says otherwise.
    Globs: one per wall zone, or one per face with glob_per_face, numbered from 0
    in zone order; every wall face is in a glob.
    two_sided: names of parts that get a reversed copy as a zone (and globs) of
    their own, "NAME back".
    subdivide_size: faces with an edge longer than this are split, the pieces
    keeping the face's glob.
    dimension: 3 for surface and volume meshes, 2 (planar) by default for segment
    meshes, 1 for axisymmetric ones (segments in the (x, r) half-plane).
    report: a list that receives one line per orientation problem fixed by flip.
    """
    shape = _shape_dimension(mesh)
    if dimension is None:
        dimension = shape
    if (dimension == 3) != (shape == 3):
        raise ValueError(f"dimension {dimension} does not fit a mesh of "
                         f"{'surfaces' if shape == 3 else 'line segments'}")
    points = np.asarray(mesh.points, dtype=np.float64)
    if points.shape[1] < 3:
        points = np.hstack([points, np.zeros((len(points), 3 - points.shape[1]))])
    parts = _collect_parts(mesh, dimension)
    zone_types = dict(zone_types or {})
    unknown = set(zone_types) - {p.name for p in parts}
    if unknown:
        raise ValueError(f"no part named {', '.join(sorted(unknown))}; the parts are "
                         f"{', '.join(p.name for p in parts)}")
    for part in parts:
        part.zone_type = int(zone_types.get(part.name, WALL))

    problems = orient(parts, points, dimension, flip=flip)
    if report is not None:
        report.extend(problems)

    missing = set(two_sided) - {p.name for p in parts}
    if missing:
        raise ValueError(f"no part named {', '.join(sorted(missing))} to make two-sided")
    for name in two_sided:
        part = next(p for p in parts if p.name == name)
        back = Part(f"{name} back", part.zone_type)
        back.faces = [face[::-1].copy() for face in part.faces]
        parts.append(back)

    # Glob keys: (part, face) with glob_per_face, else the part; walls only.
    for p, part in enumerate(parts):
        part.face_globs = [(p, k) if glob_per_face else (p,) for k in range(len(part.faces))]
    if subdivide_size is not None:
        points = subdivide(parts, points, subdivide_size)

    faces, face_zones, globs, numbers = [], [], [], {}
    for z, part in enumerate(parts):
        wall = part.zone_type < 2000
        for face, key in zip(part.faces, part.face_globs):
            faces.append(face)
            face_zones.append(z)
            globs.append(numbers.setdefault(key, len(numbers)) if wall else -1)
    used = np.unique(np.concatenate(faces))
    renumber = np.full(len(points), -1, dtype=np.int64)
    renumber[used] = np.arange(len(used))
    nodes = points[used][:, :3 if dimension == 3 else 2]
    model = Model(nodes, [renumber[f] for f in faces], face_zones=face_zones,
                  zone_types=[p.zone_type for p in parts], globs=globs, dimension=dimension,
                  resolution=resolution)
    model.part_names = [p.name for p in parts]
    return model
