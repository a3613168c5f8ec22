"""Results for ParaView: the faces of every glob with their view-factor data as
cell data of a VTU file, written by meshio."""

import numpy as np

VTK_CELL = {2: "line", 3: "triangle", 4: "quad"}


def write_vtu(result, path, to_globs=(), fields=None, binary=True):
    """Writes the faces that belong to a glob. Cell data: glob, zone, glob_area,
    row_sum and reciprocity (NaN for globs without a row), F_to_<g>, the factor
    from the face's glob to glob g, for every g in to_globs, and every entry of
    fields, a name and one value per glob."""
    import meshio

    model = result.model
    to_globs = [int(g) for g in to_globs]
    for g in to_globs:
        if not 0 <= g < model.glob_count:
            raise ValueError(f"glob {g} is outside the {model.glob_count} globs")
    offsets, face_nodes = model.face_offsets, model.face_nodes
    counts = np.diff(offsets)
    globs = model.face_globs
    in_glob = (globs >= 0) & (globs < model.glob_count) & (counts >= 2)

    with_rows = result.active
    per_glob = {
        "glob": np.arange(model.glob_count),
        "glob_area": result.areas,
        "row_sum": np.where(with_rows, result.row_sums, np.nan),
        "reciprocity": np.where(with_rows, result.reciprocity, np.nan),
    }
    columns = result.matrix.tocsc()
    for g in to_globs:
        per_glob[f"F_to_{g}"] = np.where(with_rows, columns[:, g].toarray().ravel(), np.nan)

    for name, values in (fields or {}).items():
        values = np.asarray(values)
        if values.shape != (model.glob_count,):
            raise ValueError(f"field {name} needs one value per glob ({model.glob_count})")
        per_glob[name] = values

    cells, data = [], {name: [] for name in ["zone", *per_glob]}
    for count in np.unique(counts[in_glob]):
        faces = np.flatnonzero(in_glob & (counts == count))
        nodes = face_nodes[offsets[faces][:, None] + np.arange(count)]
        cells.append((VTK_CELL.get(int(count), "polygon"), nodes))
        data["zone"].append(model.face_zones[faces])
        for name, values in per_glob.items():
            data[name].append(np.asarray(values)[globs[faces]])
    if not cells:
        raise ValueError("no face belongs to a glob: nothing to export")
    mesh = meshio.Mesh(model.nodes, cells, cell_data=data)
    mesh.write(path, file_format="vtu", binary=binary)
