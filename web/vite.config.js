// The page is served by the korvan web server from wherever it is installed, so asset paths
// stay relative. The CMake build passes --outDir to build into the build folder.
import { defineConfig } from 'vite';

export default defineConfig({
  base: './',
  build: {
    outDir: 'dist',
    // cytoscape with its layout is one large chunk; that is expected on a local tool.
    chunkSizeWarningLimit: 1500,
  },
});
