# What the reference leaves out of a public header: constructors that only `init...` can call, since
# their Key is private, and functions that are deleted. The lines stay, so that places stay true.
/^  \(explicit \)\{0,1\}ZPK[A-Za-z]*(Key.*[;}]$/s/.*//
/= delete;$/s/.*//
