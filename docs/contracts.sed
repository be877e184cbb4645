# Doxygen input filter for the headers: their contracts are plain // comments above a declaration
# (or after a member on its line); shown to Doxygen as /// and ///< documentation comments.
s|^\( *\)// |\1/// |
s|\([;,{]\) *// |\1 ///< |
