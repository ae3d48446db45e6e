"""Prints the README's products table from the catalogue of the built module.

    PYTHONPATH=build/mod/src/pytorvik python tools/gen_products_table.py

A test compares it with the table between the README's "products" markers.
"""
import pytorvik


def table():
    rows = ["| Handle | Unit | Link | What it has | Example categories | Sample target |",
            "|---|---|---|---|---|---|"]
    for family, handles in pytorvik.HANDLE_DICT.items():
        if family == "utilities":
            continue
        for name in handles:
            doc = (getattr(pytorvik, name).__doc__ or "").split("\n\n")[0]
            props = pytorvik.HANDLE_PROPERTIES[name]
            rows.append("| `%s` | %s | %s | %s | %s | `%s` |" % (
                name, pytorvik.LABEL_DICT[name], family, doc, ", ".join(props["cat_port"]), props["connect"]))
    return "\n".join(rows) + "\n"


if __name__ == "__main__":
    print(table(), end="")
