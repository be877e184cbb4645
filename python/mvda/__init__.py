"""mvda: PCA and PLS with missing values and cross-validated component counts, hierarchical
clustering and control charts, from numpy, pandas and scikit-learn.

The computations are those of the mvda library and its command-line tool; a model saved here
is the tool's model file, and the other way round. See docs/python.md.
"""

from ._estimators import PCA, PLS
from ._functions import control_chart, linkage, load, save, LINKAGE_METHODS, CHART_KINDS

__all__ = ["PCA", "PLS", "linkage", "control_chart", "save", "load", "LINKAGE_METHODS",
           "CHART_KINDS"]
__version__ = "0.1.0"
