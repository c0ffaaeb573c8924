"""Settings of the guide. Sphinx imports the package kelm, so it must be in PYTHONPATH."""

import re
import tempfile

import kelm

project = "kelm"
version = release = kelm.__version__
copyright = ""
extensions = [
    "matplotlib.sphinxext.plot_directive",
    "sphinx.ext.autodoc",
]

# A name in single backticks is code, in pages and in docstrings.
default_role = "code"
highlight_language = "none"
nitpicky = True
autodoc_typehints = "none"
autodoc_member_order = "bysource"
autodoc_default_options = {"members": True}

# The tutorials run in a folder of their own, so that they leave no file among the sources.
_work = tempfile.TemporaryDirectory()
plot_working_directory = _work.name
plot_formats = [("png", 120)]
plot_html_show_formats = False
plot_html_show_source_link = False
plot_include_source = True

html_theme = "alabaster"
html_theme_options = {
    "description": "Networks of stochastic spiking neurons, to the same bits everywhere",
    "fixed_sidebar": True,
    "page_width": "1160px",
    "body_max_width": "auto",
    "code_font_size": "0.8em",
}
html_static_path = ["_static"]
html_show_copyright = False
html_show_sphinx = False
html_copy_source = False
html_show_sourcelink = False


def _rubrics(app, what, name, obj, options, lines):
    """Makes rubrics of the headings in docstrings. What is below them is as reStructuredText has
    it: a definition list of parameters, an example."""
    text = re.sub(r"^(\w+)\n-+$", r".. rubric:: \1\n", "\n".join(lines), flags=re.MULTILINE)
    lines[:] = text.split("\n")


def _resolve(app, env, node, content):
    """Finds a name that a docstring or a page does not qualify by the module of its definition."""
    if node.get("refdomain") != "py":
        return None
    last = node["reftarget"].rpartition(".")[2]
    for target in (f"kelm.{node['reftarget']}", f"kelm.errors.{last}", f"kelm.sonata.{last}"):
        found = env.get_domain("py").resolve_xref(
            env, node["refdoc"], app.builder, node["reftype"], target, node, content
        )
        if found is not None:
            return found
    return None


def setup(app):
    app.connect("autodoc-process-docstring", _rubrics)
    app.connect("missing-reference", _resolve)
