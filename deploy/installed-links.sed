# Points the links of our documents to where the packages have what they name. The rest is only in the source.
s#\]\(\.\./deploy/(nftables|many-sites|monitoring)#](../../korvaneugs/\1#g
s#\]\(\.\./client/python/README#](../python3-ugs-client/README#g
s#\[([^]]*)\]\(\.\./(client/|deploy/|ugs_client\.h)[^)]*\)#\1#g
s#\]\(protocol\.md#](../korvaneugs-tools/protocol.md#g
s#\]\(([a-z-]+\.md)#](../korvaneugs/\1#g
