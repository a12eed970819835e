# Install rules, exported targets and pkg-config files.
