# Install rules come here.
