"""The programs that exchange messages with ours."""
