"""Makes a wheel of the package that is installed in the current directory. pyproject.toml and the
README.md that it names lie there too. The target `wheel` calls this file as a setup.py."""

from setuptools import Distribution, setup


class CompiledDistribution(Distribution):
    """The wheel fits one version of Python and one platform, although nothing is compiled here."""

    def has_ext_modules(self):
        return True


setup(
    distclass=CompiledDistribution,
    packages=["kelm"],
    package_data={"kelm": ["*.so", "*.pyi", "py.typed", "_static/*"]},
)
